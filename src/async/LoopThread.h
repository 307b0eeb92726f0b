#pragma once

#include <memory>
#include <thread>
#include <utility>

#include "async/Loop.h"
#include "async/Workers.h"

namespace kestrowan::async {

/// The loop of a running program: a thread of its own, and the system's clocks. The thread takes no
/// signals but those of its own faults. A thread in a turn of work (`Afterwards`) runs what it
/// posts itself at the turn's end, with what else was posted, when nothing of the loop runs then:
/// so the functions run one at a time and in order, but not all on one thread. Timers run on the
/// loop's own. What a function throws is a line in the log.
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
  void postAside(Function function) override { workers_.post(std::move(function)); }
  void cancel(TimerNumber timer) override;
  Moment now() const override;
  std::int64_t wallClock() const override;

 private:
  class Work;

  /// Shared with the threads that are going to help.
  const std::shared_ptr<Work> work_;
  std::thread thread_;
  /// They end after the loop: what they give it then is not run.
  Workers workers_;
};

}  // namespace kestrowan::async
