#include "async/Timers.h"

#include <algorithm>

namespace kestrowan::async {

namespace {

constexpr std::chrono::milliseconds kLongest = std::chrono::hours(100 * 365 * 24);

}  // namespace

Loop::TimerNumber Timers::add(Loop::Moment now, std::chrono::milliseconds delay,
                              Loop::Function function) {
  const auto at = now + std::clamp(delay, std::chrono::milliseconds(0), kLongest);
  const auto number = ++last_;
  timers_.emplace(std::pair(at, number), std::move(function));
  moments_.emplace(number, at);
  return number;
}

Loop::Function Timers::take(Loop::TimerNumber timer) {
  const auto moment = moments_.find(timer);
  if (moment == moments_.end()) return {};
  auto node = timers_.extract({moment->second, timer});
  moments_.erase(moment);
  return std::move(node.mapped());
}

std::optional<Loop::Moment> Timers::next() const {
  if (timers_.empty()) return std::nullopt;
  return timers_.begin()->first.first;
}

Loop::Function Timers::takeDue(Loop::Moment now) {
  if (timers_.empty() || timers_.begin()->first.first > now) return {};
  return take(timers_.begin()->first.second);
}

}  // namespace kestrowan::async
