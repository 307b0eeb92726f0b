#pragma once

#include "replica/model/Tree.h"

namespace kestrowan::replica::model {

/// Reads a tree. Holds its lock, shared, while it lives, so it is a local variable of a function
/// that does not wait. What it shows does not change meanwhile.
class KFP_SCOPED_CAPABILITY View {
 public:
  explicit View(const Tree& tree) KFP_ACQUIRE_SHARED(tree.mutex_);
  ~View() KFP_RELEASE();
  View(const View&) = delete;
  View& operator=(const View&) = delete;

  const State& operator*() const { return *state_; }
  const State* operator->() const { return state_; }

 private:
  const Tree& tree_;
  const State* state_ = nullptr;
};

}  // namespace kestrowan::replica::model
