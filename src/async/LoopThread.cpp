#include "async/LoopThread.h"

#include <pthread.h>
#include <signal.h>

#include <utility>

#include "platform/base/Threads.h"

namespace kestrowan::async {

namespace {

/// While it lives, threads that are started take no signals but those of their own faults.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigset_t blocked;
    ::sigfillset(&blocked);
    for (const int fault : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP}) {
      ::sigdelset(&blocked, fault);
    }
    ::pthread_sigmask(SIG_SETMASK, &blocked, &before_);
  }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;
  ~BlockedSignals() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

}  // namespace

LoopThread::LoopThread() {
  const BlockedSignals blocked;
  thread_ = startThread("the loop", [this] { run(); });
}

LoopThread::~LoopThread() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_one();
  thread_.join();
}

void LoopThread::post(Function function) {
  {
    std::lock_guard lock(mutex_);
    // Whatever waits for it would wait for ever.
    untilThereIsMemory([&] { posted_.push_back(std::move(function)); });
  }
  changed_.notify_one();
}

Loop::TimerNumber LoopThread::postAfter(std::chrono::milliseconds delay, Function function) {
  TimerNumber number;
  {
    std::lock_guard lock(mutex_);
    number = timers_.add(now(), delay, std::move(function));
  }
  changed_.notify_one();
  return number;
}

void LoopThread::cancel(TimerNumber timer) {
  // Destroyed without the lock: what the function holds may come back here.
  Function forgotten;
  std::lock_guard lock(mutex_);
  forgotten = timers_.take(timer);
}

Loop::Moment LoopThread::now() const {
  return std::chrono::steady_clock::now();
}

std::int64_t LoopThread::wallClock() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

Loop::Function LoopThread::takeNext(std::unique_lock<std::mutex>& lock) {
  while (true) {
    // By turns, so that neither kind can keep the other waiting for ever.
    if (!stopping_ && (!timerRanLast_ || posted_.empty())) {
      if (auto timer = timers_.takeDue(now())) {
        timerRanLast_ = true;
        return timer;
      }
    }
    if (!posted_.empty()) {
      timerRanLast_ = false;
      auto function = std::move(posted_.front());
      posted_.pop_front();
      return function;
    }
    if (stopping_) return {};
    if (const auto next = timers_.next()) {
      changed_.wait_until(lock, *next);
    } else {
      changed_.wait(lock);
    }
  }
}

void LoopThread::run() noexcept {
  std::unique_lock lock(mutex_);
  while (auto function = takeNext(lock)) {
    lock.unlock();
    guarded("the loop", function);
    function = nullptr;
    lock.lock();
  }
}

}  // namespace kestrowan::async
