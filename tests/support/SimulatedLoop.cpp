#include "support/SimulatedLoop.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "platform/base/Threads.h"

namespace kestrowan::test {

namespace {

// Functions at one moment, which no work that ends needs.
constexpr std::size_t kEndless = 1'000'000;

}  // namespace

void SimulatedLoop::post(Function function) {
  std::lock_guard lock(mutex_);
  posted_.push_back(std::move(function));
}

async::Loop::TimerNumber SimulatedLoop::postAfter(std::chrono::milliseconds delay,
                                                  Function function) {
  std::lock_guard lock(mutex_);
  return timers_.add(now_, delay, std::move(function));
}

void SimulatedLoop::postAside(Function function) {
  std::lock_guard lock(mutex_);
  aside_.push_back(std::move(function));
}

void SimulatedLoop::holdAside(bool isHeld) {
  std::lock_guard lock(mutex_);
  isAsideHeld_ = isHeld;
}

std::size_t SimulatedLoop::countAside() const {
  std::lock_guard lock(mutex_);
  return aside_.size();
}

void SimulatedLoop::cancel(TimerNumber timer) {
  // Destroyed without the lock: what the function holds may come back here.
  Function forgotten;
  std::lock_guard lock(mutex_);
  forgotten = timers_.take(timer);
}

async::Loop::Moment SimulatedLoop::now() const {
  std::lock_guard lock(mutex_);
  return now_;
}

std::int64_t SimulatedLoop::wallClock() const {
  std::lock_guard lock(mutex_);
  const auto passed =
      std::chrono::duration_cast<std::chrono::milliseconds>(now_.time_since_epoch());
  return (wallClockOffset_ + passed).count();
}

bool SimulatedLoop::runOne() {
  Function function;
  {
    std::lock_guard lock(mutex_);
    if (!posted_.empty()) {
      function = std::move(posted_.front());
      posted_.pop_front();
    } else if (!aside_.empty() && !isAsideHeld_) {
      function = std::move(aside_.front());
      aside_.pop_front();
    } else {
      function = timers_.takeDue(now_);
    }
  }
  if (!function) return false;
  guarded("the loop", function);
  return true;
}

bool SimulatedLoop::skipToNextTimer(Moment end) {
  std::lock_guard lock(mutex_);
  const auto next = timers_.next();
  if (!next || *next > end) return false;
  now_ = std::max(now_, *next);
  return true;
}

std::size_t SimulatedLoop::runUntilIdle() {
  std::size_t count = 0;
  while (runOne()) {
    if (++count == kEndless) throw std::runtime_error("the loop never has nothing to do");
  }
  return count;
}

void SimulatedLoop::advance(std::chrono::milliseconds duration) {
  runUntil([] { return false; }, duration);
}

bool SimulatedLoop::runUntil(const std::function<bool()>& predicate,
                             std::chrono::milliseconds limit) {
  const Moment end = now() + limit;
  std::size_t count = 0;
  while (!predicate()) {
    if (runOne()) {
      if (++count == kEndless) throw std::runtime_error("the loop never has nothing to do");
      continue;
    }
    count = 0;
    if (skipToNextTimer(end)) continue;
    std::lock_guard lock(mutex_);
    now_ = std::max(now_, end);
    return false;
  }
  return true;
}

void SimulatedLoop::stepWallClock(std::chrono::milliseconds step) {
  std::lock_guard lock(mutex_);
  wallClockOffset_ += step;
}

}  // namespace kestrowan::test
