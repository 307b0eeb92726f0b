#pragma once

#include <chrono>
#include <coroutine>
#include <cstdint>
#include <functional>

#include "platform/base/Resumer.h"

namespace kestrowan::async {

/// One thread's worth of work in order, and the time: the seam through which everything waits.
/// Calls may come from every thread; the functions run one at a time, never inside a call. What a
/// function throws is a line in the log.
/// The loop must outlive whatever posts to it.
class Loop : public Resumer {
 public:
  using Function = std::function<void()>;
  using TimerNumber = std::uint64_t;
  using Moment = std::chrono::steady_clock::time_point;

  /// Runs `function` after what was posted before.
  virtual void post(Function function) = 0;
  /// Runs `function` once `delay` is over.
  virtual TimerNumber postAfter(std::chrono::milliseconds delay, Function function) = 0;
  /// Runs `function`, which may block, beside the loop: on a thread of its own while it runs, and
  /// in no order with others. Throws `NSError` when the system gives no thread.
  virtual void postAside(Function function) = 0;
  /// Forgets a timer; does nothing when it has run or is running.
  virtual void cancel(TimerNumber timer) = 0;

  /// For durations.
  virtual Moment now() const = 0;
  /// For dates: milliseconds since 1970-01-01 UTC.
  virtual std::int64_t wallClock() const = 0;

  void resumeLater(std::coroutine_handle<> handle) final;
};

}  // namespace kestrowan::async
