#pragma once

#include <chrono>
#include <cstdint>

#include "platform/linux/CurlSocket.h"

namespace kestrowan {

/// Tells when a connection has moved no byte, in either direction and in any phase, for a given
/// time. It has no clock of its own: its owner asks it again and again. Late by a sixtieth of that
/// time at most, and by nothing where the system tells since when a socket is quiet. Not
/// thread-safe.
class CurlIdleTimer {
 public:
  using Clock = std::chrono::steady_clock;

  /// `seconds` is bounded to 1 ms … 7 days.
  explicit CurlIdleTimer(double seconds);

  /// Counts from `now` on.
  void restart(Clock::time_point now);
  /// When `expired` wants to be asked again.
  Clock::time_point nextCheck() const { return nextCheck_; }
  /// Takes the traffic of the connection as it stands at `now`; whether nothing has moved for the
  /// whole time.
  bool note(const CurlTraffic& traffic, Clock::time_point now);

 private:
  std::chrono::nanoseconds limit_;
  std::uint64_t bytesMoved_ = 0;
  Clock::time_point lastProgress_;
  Clock::time_point lastLook_;
  Clock::time_point nextCheck_;
};

}  // namespace kestrowan
