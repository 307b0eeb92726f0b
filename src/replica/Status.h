#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"
#include "replica/Records.h"
#include "replica/store/HistoryTrim.h"

namespace kestrowan::replica {

/// Where an item stands between here and the provider.
enum class SyncState : std::uint8_t {
  synced,
  waiting,  // changed here, will be sent
  sending,
  retrying,  // failed, will be tried again
  refused,   // failed, waits for the user
  localOnly,
};

/// "synced", "waiting" and so on.
const char* name(SyncState state);

struct ItemStatus {
  /// From the root, beginning with "/".
  std::string path;
  ItemKind kind = ItemKind::file;
  SyncState state = SyncState::synced;
  /// What is to be sent: "create", "contents", "rename", "delete", some of them separated by ", ";
  /// "verify" when it is not known whether that has arrived.
  std::string changes;
  /// The provider's identifier; empty when it has none yet.
  NSFileProviderItemIdentifier identifier;
  NSData version;
  std::int64_t size = 0;
  bool downloaded = false;
  bool pinned = false;
  /// Of a side of a conflict: the path of the other one; "yes" when that is no more. Empty for
  /// others.
  std::string conflict;
  Boxed<SyncFailure> failure;
};

struct Status {
  /// No server can be reached at present.
  bool offline = false;
  /// The server counts as in reach, but has not answered: never so far, or not when it was asked
  /// last; the reason.
  std::optional<std::string> unanswered;
  /// Nothing is asked of the provider until its configuration changes; the reason.
  std::optional<std::string> held;
  /// The error that is the reason.
  std::optional<NSError> heldBy;
  /// For how long requests have waited without a byte from the server; absent while it answers. Not
  /// the replica's to know: its owner may fill it in.
  std::optional<std::chrono::seconds> silence;
  /// The items that are not synced, as many of them as were asked for.
  std::vector<ItemStatus> pending;
  std::int64_t pendingCount = 0;
  std::int64_t pendingBytes = 0;
  std::int64_t itemCount = 0;
  /// Contents here that could be fetched again.
  std::int64_t cachedFiles = 0;
  std::int64_t cachedBytes = 0;
  std::int64_t fetching = 0;
  /// The contents that left their items, and how many bytes of the disk they may take. While more
  /// of them than that were never at the provider, nothing can be opened to be written.
  HistoryUsage history;
  std::int64_t historyLimit = 0;
  bool isHistoryFull() const { return history.unconfirmedBytes > historyLimit; }
  /// Conflicts that are not resolved, the latest last: the path of the version from here, and that
  /// of the provider's, empty when it is not here any more.
  struct Conflict {
    std::string path;
    std::string theirs;
  };
  std::vector<Conflict> conflicts;
  /// How often programs that work in the background were refused what is not here, since the start;
  /// and the one that was refused last.
  std::int64_t refusedPrograms = 0;
  std::string lastRefusedProgram;
  /// Folders that programs watch.
  std::int64_t watchedFolders = 0;
  /// Entries of listings that could not be admitted, since the start.
  std::int64_t refusedEntries = 0;
  /// Listings that did not come whole, since the start; and the paths of folders, at most 100,
  /// whose last listing did not.
  std::int64_t partialListings = 0;
  std::vector<std::string> partialFolders;
};

struct EvictionResult {
  std::int64_t evicted = 0;
  std::int64_t bytes = 0;
  /// Not evicted because it is: changed here, open, or pinned.
  std::int64_t changed = 0;
  std::int64_t open = 0;
  std::int64_t pinned = 0;
};

}  // namespace kestrowan::replica
