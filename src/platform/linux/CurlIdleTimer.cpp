#include "platform/linux/CurlIdleTimer.h"

#include <algorithm>

namespace kestrowan {

namespace {

constexpr int kChecksPerLimit = 60;
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
  lastLook_ = now;
  nextCheck_ = now + limit_ / kChecksPerLimit;
}

bool CurlIdleTimer::note(const CurlTraffic& traffic, Clock::time_point now) {
  if (traffic.bytesMoved != bytesMoved_) {
    bytesMoved_ = traffic.bytesMoved;
    // What moved before the last look was noticed then.
    lastProgress_ = std::max(lastLook_, now - traffic.quietFor);
  }
  lastLook_ = now;
  const auto end = lastProgress_ + limit_;
  nextCheck_ = std::min(now + limit_ / kChecksPerLimit, end);
  return now >= end;
}

}  // namespace kestrowan
