#pragma once

#include <coroutine>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/base/Executor.h"
#include "platform/base/Task.h"

namespace kestrowan {

/// One result handed from any thread to one waiting coroutine: the bridge between callbacks and
/// tasks. Held by shared pointer from both sides. Exactly one of `resolve` and `reject` is called,
/// once, from any thread; the waiter continues on the shared executor, never on that thread.
template <typename T>
class OneShot {
 public:
  void resolve(T value) {
    std::unique_lock lock(mutex_);
    value_.emplace(std::move(value));
    finish(lock);
  }

  void reject(std::exception_ptr exception) {
    std::unique_lock lock(mutex_);
    exception_ = std::move(exception);
    finish(lock);
  }

  /// The result of `shot`, or its exception. Awaited at most once.
  static Task<T> result(std::shared_ptr<OneShot> shot) {
    Wait wait{*shot};
    co_await wait;
    // Taken out, so that the other holder of the shot is not the one that frees it.
    if (auto exception = std::exchange(shot->exception_, nullptr)) {
      std::rethrow_exception(std::move(exception));
    }
    co_return std::move(*shot->value_);
  }

 private:
  struct Wait {
    OneShot& shot;
    bool await_ready() const noexcept { return false; }
    bool await_suspend(std::coroutine_handle<> handle) {
      std::lock_guard lock(shot.mutex_);
      if (shot.finished_) return false;
      shot.waiter_ = handle;
      return true;
    }
    void await_resume() const noexcept {}
  };

  void finish(std::unique_lock<std::mutex>& lock) {
    finished_ = true;
    auto waiter = waiter_;
    lock.unlock();
    if (waiter) Executor::shared().post(waiter);
  }

  std::mutex mutex_;
  bool finished_ = false;
  std::coroutine_handle<> waiter_;
  std::optional<T> value_;
  std::exception_ptr exception_;
};

}  // namespace kestrowan
