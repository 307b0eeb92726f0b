#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "async/Loop.h"
#include "async/Timers.h"

namespace kestrowan::async {

/// The loop of a running program: one thread of its own, and the system's clocks. The thread takes
/// no signals but those of its own faults. What a function throws is a line in the log.
class LoopThread : public Loop {
 public:
  LoopThread();
  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;
  /// Runs what was posted, and what that posts, but no timers, then joins the thread. Not from
  /// within a function of the loop.
  ~LoopThread() override;

  void post(Function function) override;
  TimerNumber postAfter(std::chrono::milliseconds delay, Function function) override;
  void cancel(TimerNumber timer) override;
  Moment now() const override;
  std::int64_t wallClock() const override;

 private:
  void run() noexcept;
  Function takeNext(std::unique_lock<std::mutex>& lock);

  std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by mutex_, as are the next three.
  std::deque<Function> posted_;
  Timers timers_;
  bool timerRanLast_ = false;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace kestrowan::async
