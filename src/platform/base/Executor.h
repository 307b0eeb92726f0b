#pragma once

#include <condition_variable>
#include <coroutine>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/base/Resumer.h"

namespace kestrowan {

/// A few threads that resume coroutines in the order in which they were posted.
///
/// The process has one, `shared()`, made on first use and never destroyed. Safe from every thread.
/// Coroutines must not block its threads. One that throws out of its frame is a line in the log.
/// A thread in a turn of work (`Afterwards`) resumes one that it posts itself, at the turn's end.
class Executor : public Resumer {
 public:
  /// Makes fewer threads when the system gives no more; throws `NSError` when it gives none.
  explicit Executor(unsigned threadCount);
  Executor(const Executor&) = delete;
  Executor& operator=(const Executor&) = delete;
  /// Runs what has been posted, then joins the threads.
  ~Executor() override;

  static Executor& shared();

  /// On one of the executor's threads, or at the end of the turn of the calling thread.
  void resumeLater(std::coroutine_handle<> handle) override;

  /// Awaitable: `co_await executor.schedule()` continues on one of the executor's threads.
  auto schedule() {
    struct Awaiter {
      Executor& executor;
      bool await_ready() const noexcept { return false; }
      void await_suspend(std::coroutine_handle<> handle) { executor.resumeLater(handle); }
      void await_resume() const noexcept {}
    };
    return Awaiter{*this};
  }

 private:
  void run();

  std::mutex mutex_;
  std::condition_variable posted_;
  std::deque<std::coroutine_handle<>> queue_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace kestrowan
