#pragma once

#include <chrono>
#include <cstdint>

#include "platform/foundation/NSError.h"

namespace kestrowan::replica::remote {

/// What an error of the provider means for the change that it answered.
enum class ErrorClass : std::uint8_t {
  ambiguous,        // missing, refused, full or down: the parent's listing tells
  transient,        // may have taken effect: verify, then try again later
  down,             // the server cannot be reached
  held,             // nothing works until the configuration changes
  collision,        // another item has the name
  gone,             // the item is not there
  deletionRefused,  // the item stays; list it again
  folderNotEmpty,   // the same, of a folder
  quota,            // tried again every 15 minutes
  parked,           // until the item changes or the user asks
  excluded,         // stays here from now on
  listAgain,        // start the listing anew
  refused,          // definitive
  denied,           // the server says no for good, unless a look shows why it says so
};

ErrorClass errorClass(const NSError& error);

/// Whether the same request, if it changes nothing, may well succeed when it is made again soon:
/// the server did not do what it was asked for, or the connection broke, or there was no server.
bool isPassing(const NSError& error);

/// How long to wait after `tries` failures (at least 1): 1, 2, 4 … 300 seconds, each up to a fifth
/// more or less. `random` is any number; it decides on the fifth.
std::chrono::milliseconds backOff(std::uint32_t tries, std::uint64_t random);

/// Until a server that is down is probed for the `probe`-th time (from 1): 1, 2, 4 … 30 seconds.
std::chrono::milliseconds probeInterval(std::uint32_t probe);

}  // namespace kestrowan::replica::remote
