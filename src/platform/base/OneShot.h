#pragma once

#include <coroutine>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/base/Abandonment.h"
#include "platform/base/Executor.h"
#include "platform/base/Resumer.h"
#include "platform/base/Task.h"

namespace kestrowan {

/// A result that somewhere is still being made, of whatever type. See `OneShot`.
class PendingResult {
 public:
  PendingResult(const PendingResult&) = delete;
  PendingResult& operator=(const PendingResult&) = delete;

  /// Gives an exception instead of a value. Whether this was the first result.
  bool reject(std::exception_ptr exception);
  /// The same; the work for this result is told that nothing waits for it any more.
  void abandon(std::exception_ptr exception);

 protected:
  PendingResult(Resumer& resumer, std::shared_ptr<Abandonment> abandonment);
  ~PendingResult() = default;

  /// Awaitable, once: returns when there is a result.
  struct Wait {
    PendingResult& result;
    bool await_ready() const noexcept { return false; }
    bool await_suspend(std::coroutine_handle<> waiter) { return result.wait(waiter); }
    void await_resume() const noexcept {}
  };

  /// Lets `give`, which stores the value, be the result. Whether it was the first.
  template <typename Give>
  bool finish(const Give& give) {
    std::unique_lock lock(mutex_);
    if (finished_) return false;
    give();
    resume(lock);
    return true;
  }
  void rethrowIfRejected();

 private:
  bool wait(std::coroutine_handle<> waiter);
  void resume(std::unique_lock<std::mutex>& lock);

  Resumer& resumer_;
  const std::shared_ptr<Abandonment> abandonment_;
  std::mutex mutex_;  // guards what follows, and the value, until there is a result
  bool finished_ = false;
  std::coroutine_handle<> waiter_;
  std::exception_ptr exception_;
};

/// One result handed from any thread to one waiting coroutine: the bridge between callbacks and
/// tasks. Held by shared pointer from both sides. What comes after the first result is dropped.
/// The waiter continues on the resumer, which must outlive the shot; never on the giver's thread.
template <typename T>
class OneShot : public PendingResult {
 public:
  /// `abandonment`, which may be null, is what `abandon` declares.
  explicit OneShot(Resumer& resumer = Executor::shared(),
                   std::shared_ptr<Abandonment> abandonment = nullptr)
      : PendingResult(resumer, std::move(abandonment)) {}

  /// Whether this was the first result.
  bool resolve(T value) {
    return finish([&] { value_.emplace(std::move(value)); });
  }

  /// The result of `shot`, or its exception. Awaited at most once.
  static Task<T> result(std::shared_ptr<OneShot> shot) {
    Wait wait{*shot};
    co_await wait;
    shot->rethrowIfRejected();
    co_return std::move(*shot->value_);
  }

 private:
  std::optional<T> value_;
};

/// The same for work that gives nothing but its end.
template <>
class OneShot<void> : public PendingResult {
 public:
  explicit OneShot(Resumer& resumer = Executor::shared(),
                   std::shared_ptr<Abandonment> abandonment = nullptr);

  bool resolve();
  static Task<void> result(std::shared_ptr<OneShot> shot);
};

}  // namespace kestrowan
