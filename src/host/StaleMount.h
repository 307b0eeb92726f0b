#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/Registry.h"

namespace kestrowan::host {

/// The hosts that do not run any more and left their mounts behind, in the order of `knownHosts`.
/// Of several that were mounted at one place the last one counts, and none when another one is
/// mounted there now. Touches no mount. Throws `NSError` when the system's table of mounts cannot
/// be read.
std::vector<HostEntry> hostsThatLeft();

/// Where `path` (absolute, or relative to `directory`) lies in a mount that was left behind.
std::optional<PlaceInMount> placeThatWasLeft(const std::string& path, const std::string& directory);

/// The host that left its mount behind at `path` (absolute, or relative to `directory`); nothing
/// when that is none.
std::optional<HostEntry> hostThatLeft(const std::string& path, const std::string& directory);

/// What a person may do about it, in words.
std::string adviceFor(const HostEntry& left);

/// Takes such a mount away, and gives its folder the former mode back. Throws `NSError` with a text
/// for a person.
void removeLeftMount(const HostEntry& host);

}  // namespace kestrowan::host
