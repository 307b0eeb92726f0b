#include "platform/base/Executor.h"

#include <algorithm>

#include "platform/base/Afterwards.h"
#include "platform/base/Threads.h"
#include "platform/foundation/NSError.h"

namespace kestrowan {

namespace {

constexpr unsigned kMinimumThreads = 2;
constexpr unsigned kMaximumThreads = 4;

}  // namespace

Executor::Executor(unsigned threadCount) {
  threads_.reserve(threadCount);
  try {
    while (threads_.size() < threadCount) {
      threads_.push_back(startThread("the executor", [this] { run(); }));
    }
  } catch (const NSError&) {
    // Fewer do the same work.
    if (threads_.empty()) throw;
  }
}

Executor::~Executor() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  posted_.notify_all();
  for (auto& thread : threads_) thread.join();
}

Executor& Executor::shared() {
  // Never destroyed: a background task may outlive the static objects of the program.
  static auto* executor = new Executor(
      std::clamp(std::thread::hardware_concurrency(), kMinimumThreads, kMaximumThreads));
  return *executor;
}

void Executor::resumeLater(std::coroutine_handle<> handle) {
  // One is done sooner by this thread than by one that has to be woken; more are done side by side.
  if (!Afterwards::has(this) && Afterwards::leave(this, [handle] { handle.resume(); })) return;
  {
    std::lock_guard lock(mutex_);
    // Whatever waits for this coroutine would wait for ever.
    untilThereIsMemory([&] { queue_.push_back(handle); });
  }
  posted_.notify_one();
}

void Executor::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    posted_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
    if (queue_.empty()) return;
    auto handle = queue_.front();
    queue_.pop_front();
    lock.unlock();
    {
      const Afterwards afterwards;
      guarded("the executor", [&] { handle.resume(); });
    }
    lock.lock();
  }
}

}  // namespace kestrowan
