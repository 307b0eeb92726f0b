#pragma once

#include <functional>
#include <utility>
#include <vector>

#include "replica/model/Journal.h"
#include "replica/model/SharedMutex.h"
#include "replica/model/State.h"
#include "replica/model/Watcher.h"

namespace kestrowan::replica::model {

/// The items of one replica and the lock that guards them. A `View` reads it, together with other
/// views; an `Edit` changes it, alone. Neither is to be made by a thread that has one of the same
/// tree. Lives as long as the replica; usable from every thread.
class Tree {
 public:
  /// The root alone. `journal` must outlive the tree.
  explicit Tree(Journal& journal) : journal_(journal) {}
  /// With all that a journal has kept.
  Tree(Journal& journal, State state) : state_(std::move(state)), journal_(journal) {}
  Tree(const Tree&) = delete;
  Tree& operator=(const Tree&) = delete;

  /// By `clock`, edits note when what programs see of an item changed, and when something came into
  /// a folder or left it; without one they do not. Called under the lock. To be called before
  /// another thread uses the tree.
  void setClock(std::function<FileTime()> clock) { clock_ = std::move(clock); }

  /// Tells `watcher` of every edit from now on, after those that were given before. It must outlive
  /// the last edit. To be called before another thread uses the tree.
  void watch(Watcher& watcher) { watchers_.push_back(&watcher); }

 private:
  friend class View;
  friend class Edit;

  mutable SharedMutex mutex_;
  State state_ KFP_GUARDED_BY(mutex_);
  Journal& journal_;
  std::vector<Watcher*> watchers_;
  std::function<FileTime()> clock_;
};

}  // namespace kestrowan::replica::model
