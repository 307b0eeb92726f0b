#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <random>
#include <unordered_map>

#include "async/Scope.h"
#include "replica/Options.h"
#include "replica/model/Tree.h"
#include "replica/pull/Freshness.h"
#include "replica/pull/Looks.h"
#include "replica/remote/Health.h"

namespace kestrowan::replica::pull {

/// Which folders programs use, and the listings of these every half minute. Owned by the refresher;
/// usable from every thread.
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

 private:
  struct Folder {
    /// Uptime.
    std::optional<async::Loop::Moment> lastUse;
    unsigned open = 0;
    /// A timer will list it anew while it is in use.
    bool isWatched = false;
  };

  bool isInUse(const Folder& folder) const;
  void watch(model::ItemNumber folder);
  void lookAgain(model::ItemNumber folder);

  model::Tree& tree_;
  async::Scope& scope_;
  remote::Health& health_;
  const Options& options_;
  const Freshness& freshness_;
  Looks& looks_;

  std::mutex mutex_;  // guards what follows; a leaf
  std::unordered_map<model::ItemNumber, Folder> folders_;
  std::mt19937_64 random_;
};

}  // namespace kestrowan::replica::pull
