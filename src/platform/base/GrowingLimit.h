#pragma once

#include <chrono>
#include <cstddef>

namespace kestrowan {

/// How many of something may run at once: as many as usual, and more, up to a bound, while others
/// wait and none of those that run comes to its end. Falls back as they end and none waits.
///
/// Pure arithmetic; the owner counts, keeps the time, and calls from one thread at a time.
class GrowingLimit {
 public:
  using Moment = std::chrono::steady_clock::time_point;

  /// So long nothing must have begun before the limit grows.
  static constexpr std::chrono::milliseconds kPatience{50};

  /// `usual` is at least 1, and `most` at least that.
  GrowingLimit(std::size_t usual, std::size_t most);

  std::size_t value() const { return value_; }
  /// One has begun.
  void noteBegin(Moment now) { lastBegin_ = now; }
  /// One has ended, and so many run and wait now.
  void noteEnd(std::size_t running, std::size_t waiting);
  /// Whether the limit can grow at all from where it is.
  bool canGrow() const { return value_ < most_; }
  /// When it grows, should nothing begin until then.
  Moment growsAt() const { return lastBegin_ + kPatience; }
  /// Lets as many more run as wait, if it is time.
  void grow(std::size_t waiting, Moment now);

 private:
  const std::size_t usual_;
  const std::size_t most_;
  std::size_t value_;
  Moment lastBegin_{};
};

}  // namespace kestrowan
