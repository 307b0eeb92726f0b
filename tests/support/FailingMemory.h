#pragma once

#include <cstddef>

namespace kestrowan::test {

/// Lets the program's allocations by `new` fail, and counts them. A program that links this has the
/// allocator replaced; nothing fails before it is told to. The functions may be called from every
/// thread.

/// While the object lives, every allocation of at least so many bytes fails, on every thread.
class NoLargeMemory {
 public:
  explicit NoLargeMemory(std::size_t bytes);
  NoLargeMemory(const NoLargeMemory&) = delete;
  NoLargeMemory& operator=(const NoLargeMemory&) = delete;
  ~NoLargeMemory();
};

/// While the object lives, the allocation of that number (from 1) that the thread which made it
/// does fails.
class OneFailure {
 public:
  explicit OneFailure(std::size_t number);
  OneFailure(const OneFailure&) = delete;
  OneFailure& operator=(const OneFailure&) = delete;
  ~OneFailure();
  /// Whether there were so many.
  bool happened() const;
};

/// The bytes of all allocations that live.
std::size_t heldBytes();

}  // namespace kestrowan::test
