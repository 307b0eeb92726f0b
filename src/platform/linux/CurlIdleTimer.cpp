#include "platform/linux/CurlIdleTimer.h"

#include <algorithm>

#include "platform/linux/CurlSocket.h"

namespace kestrowan {

namespace {

constexpr int kChecksPerLimit = 4;
constexpr double kLongestSeconds = 7.0 * 24 * 60 * 60;
constexpr std::chrono::nanoseconds kShortest = std::chrono::milliseconds(1);

std::chrono::nanoseconds bounded(double seconds) {
  // The negation also catches what is not a number.
  if (!(seconds < kLongestSeconds)) seconds = kLongestSeconds;
  const std::chrono::duration<double> exact(std::max(seconds, 0.0));
  return std::max(std::chrono::duration_cast<std::chrono::nanoseconds>(exact), kShortest);
}

}  // namespace

CurlIdleTimer::CurlIdleTimer(double seconds) : limit_(bounded(seconds)) {}

void CurlIdleTimer::restart(Clock::time_point now) {
  lastProgress_ = now;
  nextCheck_ = now + limit_ / kChecksPerLimit;
}

bool CurlIdleTimer::expired(int socket, Clock::time_point now) {
  if (const auto moved = bytesMoved(socket); moved != bytesMoved_) {
    bytesMoved_ = moved;
    lastProgress_ = now;
  }
  const auto end = lastProgress_ + limit_;
  nextCheck_ = std::min(now + limit_ / kChecksPerLimit, end);
  return now >= end;
}

}  // namespace kestrowan
