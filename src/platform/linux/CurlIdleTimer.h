#pragma once

#include <chrono>
#include <cstdint>

namespace kestrowan {

/// Tells when a connection has moved no byte, in either direction and in any phase, for a given
/// time. Looks at the socket itself a few times within that time, so it may be late by a quarter.
/// Not thread-safe.
class CurlIdleTimer {
 public:
  using Clock = std::chrono::steady_clock;

  /// `seconds` is bounded to 1 ms … 7 days.
  explicit CurlIdleTimer(double seconds);

  /// Counts from `now` on.
  void restart(Clock::time_point now);
  /// When `expired` wants to be asked again.
  Clock::time_point nextCheck() const { return nextCheck_; }
  /// Whether nothing has moved on `socket` (-1 while there is none) for the whole time.
  bool expired(int socket, Clock::time_point now);

 private:
  std::chrono::nanoseconds limit_;
  std::uint64_t bytesMoved_ = 0;
  Clock::time_point lastProgress_;
  Clock::time_point nextCheck_;
};

}  // namespace kestrowan
