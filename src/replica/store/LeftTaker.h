#pragma once

#include <vector>

#include "replica/model/Journal.h"

namespace kestrowan::replica::store {

/// Takes what left its item with an edit into rows of its own. Called under the journal's lock.
class LeftTaker {
 public:
  virtual ~LeftTaker() = default;

  /// Writes rows in the transaction of the edit, which is open. What it throws undoes the edit.
  virtual void write(const std::vector<model::Left>& left) = 0;
  /// That transaction was committed; or it was not, and nothing of it is.
  virtual void confirm(bool isWritten) noexcept = 0;
};

}  // namespace kestrowan::replica::store
