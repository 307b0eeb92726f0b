#pragma once

#include <map>
#include <optional>
#include <unordered_map>
#include <utility>

#include "async/Loop.h"

namespace kestrowan::async {

/// The timers of a loop, in the order in which they are due. Not thread-safe.
class Timers {
 public:
  /// A timer due `delay` after `now`. Times beyond what a clock can count are cut to a century.
  Loop::TimerNumber add(Loop::Moment now, std::chrono::milliseconds delay, Loop::Function function);
  /// Takes a timer out, for the caller to destroy; an empty function for one that is not there.
  Loop::Function take(Loop::TimerNumber timer);
  /// When the next timer is due; nothing when there is none.
  std::optional<Loop::Moment> next() const;
  /// Takes out the first timer that is due at `now`: of equally early ones, the one added first.
  /// An empty function when there is none.
  Loop::Function takeDue(Loop::Moment now);

 private:
  std::map<std::pair<Loop::Moment, Loop::TimerNumber>, Loop::Function> timers_;
  std::unordered_map<Loop::TimerNumber, Loop::Moment> moments_;
  Loop::TimerNumber last_ = 0;
};

}  // namespace kestrowan::async
