#pragma once

#include <atomic>
#include <coroutine>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace kestrowan {

/// Tells background work that its caller has stopped waiting for it.
///
/// Made by the caller and shared by pointer with the work. A background task has the one of the
/// innermost `AbandonmentScope` that its starting thread is in, and passes it to the tasks that it
/// awaits. Usable from every thread.
class Abandonment {
 public:
  Abandonment() = default;
  Abandonment(const Abandonment&) = delete;
  Abandonment& operator=(const Abandonment&) = delete;

  /// The caller waits no more. Runs the reactions on this thread, each of them once.
  void declare();
  bool isDeclared() const noexcept { return declared_; }
  /// Has `reaction` run by `declare`, or at once when that has been called. It must not block.
  void whenDeclared(std::function<void()> reaction);

  /// What tasks that this thread starts are given; null outside of every scope.
  static std::shared_ptr<Abandonment> current();

 private:
  std::atomic<bool> declared_ = false;
  std::mutex mutex_;  // guards what follows; not held while a reaction runs
  std::vector<std::function<void()>> reactions_;
};

/// Makes an abandonment, which may be null, the current one of a thread while the scope lives.
class AbandonmentScope {
 public:
  explicit AbandonmentScope(std::shared_ptr<Abandonment> abandonment);
  AbandonmentScope(const AbandonmentScope&) = delete;
  AbandonmentScope& operator=(const AbandonmentScope&) = delete;
  ~AbandonmentScope();

 private:
  std::shared_ptr<Abandonment> before_;
};

/// Awaitable in a task: its abandonment, which may be null. Does not suspend the task.
class AbandonmentOfTask {
 public:
  bool await_ready() const noexcept { return false; }
  template <typename Promise>
  bool await_suspend(std::coroutine_handle<Promise> task) noexcept {
    found_ = task.promise().abandonment;
    return false;
  }
  std::shared_ptr<Abandonment> await_resume() noexcept { return std::move(found_); }

 private:
  std::shared_ptr<Abandonment> found_;
};

}  // namespace kestrowan
