#pragma once

#include "replica/model/Journal.h"
#include "replica/model/SharedMutex.h"
#include "replica/model/State.h"

namespace kestrowan::replica::model {

/// The items of one replica and the lock that guards them. A `View` reads it, together with other
/// views; an `Edit` changes it, alone. Neither is to be made by a thread that has one of the same
/// tree. Lives as long as the replica; usable from every thread.
class Tree {
 public:
  /// The root alone. `journal` must outlive the tree.
  explicit Tree(Journal& journal) : journal_(journal) {}
  Tree(const Tree&) = delete;
  Tree& operator=(const Tree&) = delete;

 private:
  friend class View;
  friend class Edit;

  mutable SharedMutex mutex_;
  State state_ KFP_GUARDED_BY(mutex_);
  Journal& journal_;
};

}  // namespace kestrowan::replica::model
