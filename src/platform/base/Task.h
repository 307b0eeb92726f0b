#pragma once

#include <chrono>
#include <coroutine>
#include <exception>
#include <memory>
#include <optional>
#include <utility>

#include "platform/base/Abandonment.h"

namespace kestrowan {

template <typename T>
class Task;

namespace detail {

/// Resumes whoever awaits the task, as a tail call where the compiler makes one.
struct FinalAwaiter {
  bool await_ready() const noexcept { return false; }
  template <typename Promise>
  std::coroutine_handle<> await_suspend(std::coroutine_handle<Promise> handle) const noexcept {
    auto continuation = handle.promise().continuation;
    return continuation ? continuation : std::noop_coroutine();
  }
  void await_resume() const noexcept {}
};

/// The exception that is being handled; one for which there was no memory, or which the system
/// threw, as the `NSError` that it stands for, so that those who await need to know of no other.
std::exception_ptr currentException() noexcept;

struct TaskPromiseBase {
  std::coroutine_handle<> continuation;
  std::shared_ptr<Abandonment> abandonment;
  std::exception_ptr exception;

  std::suspend_always initial_suspend() const noexcept { return {}; }
  FinalAwaiter final_suspend() const noexcept { return {}; }
  void unhandled_exception() noexcept { exception = currentException(); }
};

template <typename T>
struct TaskPromise : TaskPromiseBase {
  std::optional<T> value;

  Task<T> get_return_object();
  template <typename U>
  void return_value(U&& result) {
    value.emplace(std::forward<U>(result));
  }
  T take() {
    if (exception) std::rethrow_exception(exception);
    return std::move(*value);
  }
};

template <>
struct TaskPromise<void> : TaskPromiseBase {
  Task<void> get_return_object();
  void return_void() const noexcept {}
  void take() const {
    if (exception) std::rethrow_exception(exception);
  }
};

/// Starts a task, which gets the awaiting task's abandonment, and resumes with what it came to.
template <typename T>
struct TaskAwaiter {
  std::coroutine_handle<TaskPromise<T>> handle;
  bool await_ready() const noexcept { return false; }
  template <typename Promise>
  std::coroutine_handle<> await_suspend(std::coroutine_handle<Promise> awaiting) noexcept {
    handle.promise().continuation = awaiting;
    if constexpr (requires { awaiting.promise().abandonment; }) {
      handle.promise().abandonment = awaiting.promise().abandonment;
    }
    return handle;
  }
  T await_resume() { return handle.promise().take(); }
};

}  // namespace detail

/// An asynchronous operation that yields one `T` or throws one exception to its only awaiter.
///
/// Lazy: the body starts when the task is awaited, on the awaiting thread. The task owns the
/// coroutine frame and is awaited at most once; destroying it before that discards the operation.
/// A task that runs out of memory throws `NSError` of `NSPOSIXErrorDomain`, `ENOMEM`.
template <typename T>
class [[nodiscard]] Task {
 public:
  using promise_type = detail::TaskPromise<T>;

  explicit Task(std::coroutine_handle<promise_type> handle) : handle_(handle) {}
  Task(Task&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  Task& operator=(Task&&) = delete;
  ~Task() {
    if (handle_) handle_.destroy();
  }

  auto operator co_await() && noexcept { return detail::TaskAwaiter<T>{handle_}; }

 private:
  std::coroutine_handle<promise_type> handle_;
};

namespace detail {

template <typename T>
Task<T> TaskPromise<T>::get_return_object() {
  return Task<T>(std::coroutine_handle<TaskPromise<T>>::from_promise(*this));
}

inline Task<void> TaskPromise<void>::get_return_object() {
  return Task<void>(std::coroutine_handle<TaskPromise<void>>::from_promise(*this));
}

}  // namespace detail

/// Starts `task` as a background task of its own on the shared executor and returns at once. It has
/// the calling thread's current `Abandonment`. The task must handle its errors itself: one that
/// leaves it is a line in the log.
void startDetached(Task<void> task);

/// Waits until no background task is left, frames and what they held included, for at most `limit`;
/// whether that came about. For the end of the process: nothing then runs beneath its clean-up.
bool waitForDetachedTasks(std::chrono::milliseconds limit);

}  // namespace kestrowan
