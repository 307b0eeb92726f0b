#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <random>
#include <unordered_map>
#include <vector>

#include "async/Scope.h"
#include "replica/Options.h"
#include "replica/model/Tree.h"
#include "replica/pull/Freshness.h"
#include "replica/pull/Looks.h"
#include "replica/remote/Health.h"

namespace kestrowan::replica::pull {

/// Which folders programs use or watch, and the listings of these from time to time. Owned by the
/// refresher; usable from every thread.
class FoldersInUse {
 public:
  /// All must outlive it.
  FoldersInUse(model::Tree& tree, async::Scope& scope, remote::Health& health,
               const Options& options, const Freshness& freshness, Looks& looks);
  FoldersInUse(const FoldersInUse&) = delete;
  FoldersInUse& operator=(const FoldersInUse&) = delete;

  /// A program asks for what is in it.
  void noteUse(const model::Item& folder);
  /// A program has opened it, or closed it.
  void setOpen(model::ItemNumber folder, bool isOpen);
  /// From now on programs watch these items, and no others. The folders among them, and those of
  /// the files, are listed after each `interval`.
  void setWatched(const std::vector<model::ItemNumber>& items, std::chrono::milliseconds interval);
  /// Whether programs watch the folder, and its names were known when that was found out.
  bool isWatched(model::ItemNumber folder) const;
  std::size_t watchedCount() const { return watchedCount_; }

 private:
  struct Folder {
    /// Uptime.
    std::optional<async::Loop::Moment> lastUse;
    unsigned open = 0;
    /// When a timer will list it anew while it is in use. Uptime.
    std::optional<async::Loop::Moment> next;
  };

  bool isInUse(model::ItemNumber number, const Folder& folder) const;
  void lookLater(model::ItemNumber folder);
  void lookAgain(model::ItemNumber folder, async::Loop::Moment due);

  model::Tree& tree_;
  async::Scope& scope_;
  remote::Health& health_;
  const Options& options_;
  const Freshness& freshness_;
  Looks& looks_;

  std::atomic<std::size_t> watchedCount_ = 0;

  mutable std::mutex mutex_;  // guards what follows; a leaf
  std::unordered_map<model::ItemNumber, Folder> folders_;
  /// Folders that are watched, and whether they had been listed when that was found out.
  std::unordered_map<model::ItemNumber, bool> watched_;
  std::chrono::milliseconds watchInterval_{0};
  std::mt19937_64 random_;
};

}  // namespace kestrowan::replica::pull
