#include "platform/base/Executor.h"

#include <algorithm>

namespace kestrowan {

namespace {

constexpr unsigned kMinimumThreads = 2;
constexpr unsigned kMaximumThreads = 4;

}  // namespace

Executor::Executor(unsigned threadCount) {
  threads_.reserve(threadCount);
  for (unsigned i = 0; i < threadCount; ++i) threads_.emplace_back([this] { run(); });
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

void Executor::post(std::coroutine_handle<> handle) {
  {
    std::lock_guard lock(mutex_);
    queue_.push_back(handle);
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
    handle.resume();
    lock.lock();
  }
}

}  // namespace kestrowan
