#pragma once

#include <cstdint>
#include <string>

#include "replica/Records.h"

namespace kestrowan::replica {

/// Why contents left their item. The numbers stand in the database.
enum class HistoryReason : std::uint8_t {
  replaced = 0,   // newer contents were saved in their place
  removed = 1,    // a program removed the file
  updated = 2,    // the provider's version took their place
  vanished = 3,   // the provider has the file no more
  discarded = 4,  // the user gave the change up
  found = 5,      // no row told of them when the replica began
  lost = 6,       // the database was lost; these stay until they are cleared
};

/// "replaced", "removed" and so on.
const char* name(HistoryReason reason);

/// Whether the provider ever had the contents. The numbers stand in the database.
enum class Confirmed : std::uint8_t {
  never = 0,
  once = 1,
  notSent = 2,  // written under a name that is never sent
};

/// Contents that left their item. They lie in the file of their number, as before.
struct HistoryEntry {
  ContentNumber content = 0;
  Rid item = 0;
  /// Where the item was, from the root, beginning with "/"; a name alone where the folder is not
  /// known, and empty where nothing is.
  std::string path;
  /// The provider's version of them; empty when it had none.
  NSData version;
  /// Bytes.
  std::int64_t size = 0;
  /// Bytes of the disk that their file takes: less than the size where it has holes. Blocks that it
  /// shares with other files count, too.
  std::int64_t allocated = 0;
  /// Nanoseconds since 1970-01-01 UTC: the file's own date.
  std::int64_t modified = 0;
  HistoryReason reason = HistoryReason::found;
  /// Seconds since 1970-01-01 UTC: when they left.
  std::int64_t at = 0;
  Confirmed confirmed = Confirmed::never;

  friend bool operator==(const HistoryEntry&, const HistoryEntry&) = default;
};

}  // namespace kestrowan::replica
