#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "mount/EventCall.h"
#include "replica/Observer.h"

namespace kestrowan::mount {

/// What changed in watched folders and is still to be told to the programs that watch them. Changes
/// of one name become one; many changes of one folder become one of the folder. Usable from every
/// thread; nothing waits.
class UntoldChanges {
 public:
  using Moment = std::chrono::steady_clock::time_point;

  /// Changes of a folder beyond so many are told as one.
  static constexpr std::size_t kMost = 200;
  /// That one is told when nothing more came for so long, since a long listing comes in parts ...
  static constexpr std::chrono::milliseconds kQuiet{500};
  /// ... and after so long whatever comes.
  static constexpr std::chrono::milliseconds kLongest{5000};

  /// `wake` is called when there is something to tell, from every thread, under locks of the caller
  /// of `note`: it must return at once.
  explicit UntoldChanges(std::function<void()> wake) : wake_(std::move(wake)) {}
  UntoldChanges(const UntoldChanges&) = delete;
  UntoldChanges& operator=(const UntoldChanges&) = delete;

  /// What one change did.
  void note(const std::vector<replica::NameChange>& changes, Moment now);

  /// The calls that tell the next change, which is told when these have been made and `noteTold`
  /// was called. None when nothing is to be told yet. Only after the one before was told.
  std::vector<EventCall> next(Moment now);
  void noteTold();
  /// When `next` may have something that it has not now; absent when only `note` brings something.
  std::optional<Moment> nextMoment() const;

  /// Whether the name stands for something that its folder's watchers have not been told of.
  bool isUntold(replica::Rid folder, const std::string& name) const;
  /// Nothing is to be told any more.
  void clear();

 private:
  struct Folder {
    std::unordered_map<std::string, replica::NameChange> names;
    std::deque<std::string> order;
    /// Of one that changes so much that it is told as a whole: since when, and until when that
    /// waits.
    std::optional<Moment> since;
    Moment due;
  };

  static void add(Folder& folder, const replica::NameChange& change);
  std::vector<EventCall> take(replica::Rid number, Folder& folder);

  const std::function<void()> wake_;
  /// Folders with untold changes, and one for the change that is being told.
  std::atomic<std::size_t> count_ = 0;

  mutable std::mutex mutex_;  // guards what follows
  std::unordered_map<replica::Rid, Folder> folders_;
  /// The folders in the order in which they are told, each once.
  std::deque<replica::Rid> order_;
  bool isTelling_ = false;
  /// The change that is being told; absent for a folder as a whole.
  std::optional<replica::NameChange> inHand_;
};

}  // namespace kestrowan::mount
