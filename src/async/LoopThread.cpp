#include "async/LoopThread.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

#include "async/BlockedSignals.h"
#include "async/Timers.h"
#include "platform/base/Afterwards.h"
#include "platform/base/Threads.h"

namespace kestrowan::async {

namespace {

/// So many functions are run by a thread that helps, before the loop's own goes on.
constexpr int kHelp = 16;

}  // namespace

/// What waits to be run, and whether something runs now.
class LoopThread::Work {
 public:
  /// Whether nothing runs that would come to it: a thread is to run it.
  bool add(Function function) {
    std::lock_guard lock(mutex_);
    // Whatever waits for it would wait for ever.
    untilThereIsMemory([&] { posted_.push_back(std::move(function)); });
    return !isRunning_;
  }

  TimerNumber addTimer(Moment now, std::chrono::milliseconds delay, Function function) {
    std::lock_guard lock(mutex_);
    const TimerNumber number = timers_.add(now, delay, std::move(function));
    if (*timers_.next() < sleepsUntil_) changed_.notify_one();
    return number;
  }

  Function takeTimer(TimerNumber timer) {
    std::lock_guard lock(mutex_);
    return timers_.take(timer);
  }

  void wake() { changed_.notify_one(); }

  void stop() {
    {
      std::lock_guard lock(mutex_);
      isStopping_ = true;
    }
    changed_.notify_one();
  }

  /// Runs what was posted, unless something runs now: that goes on with it.
  void help() {
    std::unique_lock lock(mutex_);
    if (isRunning_) return;
    for (int turn = 0; turn < kHelp && !posted_.empty(); ++turn) runOne(lock, takePosted());
    if (isThreadWaiting_ || !posted_.empty()) changed_.notify_one();
  }

  /// For the loop's own thread, until the loop ends.
  void run() {
    std::unique_lock lock(mutex_);
    while (auto function = takeNext(lock)) runOne(lock, std::move(function));
  }

 private:
  void runOne(std::unique_lock<std::mutex>& lock, Function function) {
    isRunning_ = true;
    lock.unlock();
    {
      const Afterwards afterwards;
      guarded("the loop", function);
      function = nullptr;
    }
    lock.lock();
    isRunning_ = false;
  }

  Function takePosted() {
    auto function = std::move(posted_.front());
    posted_.pop_front();
    return function;
  }

  Function takeNext(std::unique_lock<std::mutex>& lock) {
    while (true) {
      if (isRunning_) {
        isThreadWaiting_ = true;
        changed_.wait(lock);
        isThreadWaiting_ = false;
        continue;
      }
      // By turns, so that neither kind can keep the other waiting for ever.
      if (!isStopping_ && (!timerRanLast_ || posted_.empty())) {
        if (auto timer = timers_.takeDue(std::chrono::steady_clock::now())) {
          timerRanLast_ = true;
          return timer;
        }
      }
      if (!posted_.empty()) {
        timerRanLast_ = false;
        return takePosted();
      }
      if (isStopping_) return {};
      const auto next = timers_.next();
      sleepsUntil_ = next.value_or(Moment::max());
      if (next) {
        changed_.wait_until(lock, *next);
      } else {
        changed_.wait(lock);
      }
      sleepsUntil_ = Moment::min();
    }
  }

  std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::deque<Function> posted_;
  Timers timers_;
  bool timerRanLast_ = false;
  /// When the loop's own thread looks for timers again by itself; the beginning of time while it
  /// does not sleep.
  Moment sleepsUntil_ = Moment::min();
  bool isRunning_ = false;
  /// The loop's own thread is kept from running what is due.
  bool isThreadWaiting_ = false;
  bool isStopping_ = false;
};

LoopThread::LoopThread() : work_(std::make_shared<Work>()) {
  const BlockedSignals blocked;
  thread_ = startThread("the loop", [work = work_] { work->run(); });
}

LoopThread::~LoopThread() {
  work_->stop();
  thread_.join();
}

void LoopThread::post(Function function) {
  if (!work_->add(std::move(function))) return;
  const void* const owner = work_.get();
  const bool isLeft =
      Afterwards::has(owner) || Afterwards::leave(owner, [work = work_] { work->help(); });
  if (!isLeft) work_->wake();
}

Loop::TimerNumber LoopThread::postAfter(std::chrono::milliseconds delay, Function function) {
  return work_->addTimer(now(), delay, std::move(function));
}

void LoopThread::cancel(TimerNumber timer) {
  // Destroyed without the lock: what the function holds may come back here.
  const Function forgotten = work_->takeTimer(timer);
}

Loop::Moment LoopThread::now() const {
  return std::chrono::steady_clock::now();
}

std::int64_t LoopThread::wallClock() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace kestrowan::async
