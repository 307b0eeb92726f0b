#pragma once

#include <coroutine>

namespace kestrowan {

/// What coroutines continue on: an executor, or a loop.
class Resumer {
 public:
  virtual ~Resumer() = default;

  /// Resumes `handle` later, never inside this call. From every thread. Does not fail: without
  /// memory for it, it waits until there is some.
  virtual void resumeLater(std::coroutine_handle<> handle) = 0;
};

}  // namespace kestrowan
