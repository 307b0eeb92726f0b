#pragma once

#include <chrono>
#include <cstdint>

namespace kestrowan::cli {

/// Tells when a transfer is so slow that it would never end: when the next 60 KiB take longer than
/// a minute. It has no clock of its own: its owner asks it about once a second. Not thread-safe.
class TransferPace {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::int64_t kLeastBytes = 60 * 1024;
  static constexpr std::chrono::seconds kWithin{60};

  /// Counts from `now`, when `bytesMoved` bytes had been moved.
  TransferPace(std::int64_t bytesMoved, Clock::time_point now)
      : bytesMoved_(bytesMoved), since_(now) {}

  /// Takes the number of bytes moved until `now`; whether that is too slow.
  bool note(std::int64_t bytesMoved, Clock::time_point now);

 private:
  std::int64_t bytesMoved_;
  Clock::time_point since_;
};

}  // namespace kestrowan::cli
