#include "async/Workers.h"

#include <cerrno>
#include <utility>

#include "async/BlockedSignals.h"
#include "platform/base/Threads.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::async {

Workers::~Workers() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  posted_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

void Workers::post(std::function<void()> function) {
  {
    std::lock_guard lock(mutex_);
    if (queue_.size() >= idle_ && threads_.size() < kMost) {
      const BlockedSignals blocked;
      const bool isMade = guarded("a worker of the loop", [this] {
        // Without memory for its entry no thread is started.
        threads_.reserve(kMost);
        threads_.push_back(startThread("a worker of the loop", [this] { run(); }));
      });
      // The others will do.
      if (!isMade && threads_.empty()) throw posixError(EAGAIN);
    }
    queue_.push_back(std::move(function));
  }
  posted_.notify_one();
}

void Workers::run() noexcept {
  std::unique_lock lock(mutex_);
  for (;;) {
    ++idle_;
    posted_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
    --idle_;
    if (queue_.empty()) return;
    auto function = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();
    guarded("a worker of the loop", function);
    function = nullptr;
    lock.lock();
  }
}

}  // namespace kestrowan::async
