#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

#include "async/Loop.h"
#include "async/Timers.h"

namespace kestrowan::test {

/// A loop whose time only passes when the test says so, and whose functions run inside the calls
/// below, on the thread that makes them: what happens is the same in every run. Posting is safe
/// from every thread. The time begins on 2026-01-01 at 00:00:00 UTC.
class SimulatedLoop : public async::Loop {
 public:
  void post(Function function) override;
  TimerNumber postAfter(std::chrono::milliseconds delay, Function function) override;
  /// Runs as what was posted does, but when nothing of that is left.
  void postAside(Function function) override;
  void cancel(TimerNumber timer) override;
  Moment now() const override;
  std::int64_t wallClock() const override;

  /// Runs what was posted, the timers that are due, and what all of these post, until nothing is
  /// left; says how many functions that were. Throws `std::runtime_error` when there is no end, as
  /// the next two do.
  std::size_t runUntilIdle();
  /// Lets time pass: runs every timer when it is due, and whatever is posted in between.
  void advance(std::chrono::milliseconds duration);
  /// Lets time pass until `predicate` is true; false when it is not after `limit`. The time then
  /// stands where it became true.
  bool runUntil(const std::function<bool()>& predicate, std::chrono::milliseconds limit);
  /// While `isHeld`, what was posted aside does not run: as if it took so long.
  void holdAside(bool isHeld);
  /// How much of it has not run yet.
  std::size_t countAside() const;
  /// Sets the clock of dates, and not that of durations, forward or back.
  void stepWallClock(std::chrono::milliseconds step);

 private:
  /// Runs one function that can run now; false when there is none.
  bool runOne();
  /// Moves the time on to the next timer, at most to `end`; false when there is none until then.
  bool skipToNextTimer(Moment end);

  mutable std::mutex mutex_;
  // Guarded by mutex_, as are the next five.
  std::deque<Function> posted_;
  std::deque<Function> aside_;
  bool isAsideHeld_ = false;
  async::Timers timers_;
  Moment now_{};
  std::chrono::milliseconds wallClockOffset_{1767225600000};
};

}  // namespace kestrowan::test
