#pragma once

#include <functional>
#include <utility>
#include <vector>

#include "replica/Observer.h"
#include "replica/model/Watcher.h"

namespace kestrowan::replica {

/// Says by names what an edit changed that programs see, for those that watch folders. Pure.
class ChangedNames {
 public:
  /// Of which folders that is wanted.
  using IsWatched = std::function<bool(model::ItemNumber folder)>;
  /// Items that a program's call is about, which tells of them itself.
  using IsOwn = std::function<bool(model::ItemNumber item)>;

  ChangedNames(IsWatched isWatched, IsOwn isOwn)
      : isWatched_(std::move(isWatched)), isOwn_(std::move(isOwn)) {}

  /// In the order of folders and names, each of them once.
  std::vector<NameChange> of(const std::vector<model::ItemChange>& changes) const;

 private:
  const IsWatched isWatched_;
  const IsOwn isOwn_;
};

}  // namespace kestrowan::replica
