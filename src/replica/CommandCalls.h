#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Task.h"
#include "replica/Records.h"
#include "replica/Status.h"

namespace kestrowan::replica {

class Life;

/// Which entries of the history are meant.
struct HistoryFilter {
  /// At or below that path, from the root; everything when empty.
  std::string path;
  /// That left before then; seconds since 1970-01-01 UTC.
  std::int64_t before = INT64_MAX;
};

/// The latest entries of the history, the latest first; and how many there are in all, and how many
/// bytes of the disk they take.
struct HistoryList {
  std::vector<HistoryEntry> entries;
  std::int64_t files = 0;
  std::int64_t bytes = 0;
};

/// What becomes of a file that is to be restored under a name that is taken.
enum class NameTaken : std::uint8_t {
  fails,    // EEXIST
  another,  // it gets one like it that is free
};

/// What is pinned now, or no longer: so many known files, and of them those whose contents are not
/// here yet.
struct PinResult {
  std::int64_t files = 0;
  std::int64_t missing = 0;
};

/// Which version of a file stays when a conflict is resolved.
enum class KeptVersion : std::uint8_t {
  mine,    // the one that was written here, in the place of the provider's
  theirs,  // the provider's alone
  both,    // both, as two files
};

/// What the user's commands ask of a replica. Part of the replica. Usable from every thread. Tasks
/// are as in `FileCalls`. Paths begin with "/" and are relative to the root; a path whose folders
/// were never listed gives ENOENT.
class CommandCalls {
 public:
  explicit CommandCalls(Life& life);
  CommandCalls(const CommandCalls&) = delete;
  CommandCalls& operator=(const CommandCalls&) = delete;

  /// Throws `NSError`.
  ItemStatus itemStatus(Rid item) const;
  /// The item at `path`, known here or not yet.
  Task<Rid> find(std::string path);
  /// How things stand, with at most `limit` of the pending items. Counted beforehand: no item is
  /// visited but those, and no disk is read.
  Status status(std::size_t limit = kMostPending) const;
  /// How many pending items a status names.
  static constexpr std::size_t kMostPending = 10000;
  /// Completes when both sides agree, with EIO when only refused changes are left, or with
  /// ETIMEDOUT after `limit`.
  Task<void> waitUntilSynced(std::chrono::milliseconds limit);
  /// Gives back the space of contents that can be fetched again, of everything below a folder.
  EvictionResult evict(Rid item);
  /// Keeps the contents here, of everything below a folder; `false` ends that.
  PinResult setPinned(Rid item, bool pinned);
  /// Tries at once what failed, of everything below a folder.
  void retry(Rid item);
  /// Gives up local changes of everything at and below the item: contents go to the history,
  /// and the provider's state is shown. Gives how many items that were.
  std::size_t discard(Rid item);

  /// Ends the conflict that the item is a side of, as a program that renames or removes the other
  /// one would: what goes is in the history then. Completes with the path of what stays. EINVAL
  /// when it is no side of a conflict; ENOENT when the provider's version is to stay and is not
  /// here any more.
  Task<std::string> resolve(Rid item, KeptVersion kept);

  std::optional<HistoryEntry> historyEntry(ContentNumber entry) const;
  /// What is in the history; at most `most` entries.
  HistoryList history(const HistoryFilter& filter, std::size_t most) const;
  /// Removes entries for good. Gives what that was. Throws `NSError`.
  HistoryUsage clearHistory(const HistoryFilter& filter);
  /// Makes a file of an entry's contents, with their date, as a program would; the entry stays.
  /// Completes with the file's path, or as `createFile` does; ENOENT when there is no such entry.
  /// Blocks on the disk.
  Task<std::string> restore(ContentNumber entry, Rid folder, std::string name, NameTaken ifTaken);

 private:
  Life& life_;
};

}  // namespace kestrowan::replica
