#include "async/Scope.h"

#include <condition_variable>
#include <coroutine>
#include <cstddef>
#include <list>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/base/Threads.h"

namespace kestrowan::async {

/// What is left of a scope. Shared with the functions that the loop still holds.
class Scope::State {
 public:
  using Coroutines = std::list<std::coroutine_handle<>>;

  /// Runs `function` unless the scope is closed.
  void run(const Function& function) {
    {
      std::lock_guard lock(mutex_);
      if (closed_) return;
      running_ = true;
    }
    guarded("the loop", function);
    std::lock_guard lock(mutex_);
    running_ = false;
    changed_.notify_all();
  }

  /// The same beside the loop. The function goes before it counts as ended, with all it holds.
  void runAside(Function function) {
    {
      std::lock_guard lock(mutex_);
      if (closed_) return;
      ++runningAside_;
    }
    guarded("a worker of the loop", function);
    function = nullptr;
    std::lock_guard lock(mutex_);
    --runningAside_;
    changed_.notify_all();
  }

  void close() {
    std::unique_lock lock(mutex_);
    closed_ = true;
    changed_.wait(lock, [this] { return !running_ && runningAside_ == 0; });
    while (!coroutines_.empty()) {
      const auto root = coroutines_.front();
      lock.unlock();
      // Takes itself out of the list.
      root.destroy();
      lock.lock();
    }
  }

  void addFunction() {
    std::lock_guard lock(mutex_);
    ++posted_;
  }
  void removeFunction() {
    std::lock_guard lock(mutex_);
    --posted_;
    changed_.notify_all();
  }

  /// Nothing when the scope is closed.
  std::optional<Coroutines::iterator> add(std::coroutine_handle<> root) {
    std::lock_guard lock(mutex_);
    if (closed_) return std::nullopt;
    return coroutines_.insert(coroutines_.end(), root);
  }
  void remove(Coroutines::iterator place) {
    std::lock_guard lock(mutex_);
    coroutines_.erase(place);
    changed_.notify_all();
  }

  bool waitUntilEmpty(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [this] { return posted_ == 0 && coroutines_.empty(); });
  }

 private:
  std::mutex mutex_;  // guards what follows; not held while anything runs
  std::condition_variable changed_;
  bool closed_ = false;
  bool running_ = false;
  std::size_t runningAside_ = 0;
  std::size_t posted_ = 0;
  Coroutines coroutines_;
};

/// The coroutine that awaits a task which nothing else does. Frees itself at its end.
struct Scope::Root {
  struct promise_type {
    std::shared_ptr<State> state;
    State::Coroutines::iterator place;

    promise_type() = default;
    promise_type(const promise_type&) = delete;
    promise_type& operator=(const promise_type&) = delete;
    ~promise_type() {
      if (state) state->remove(place);
    }

    Root get_return_object() { return {std::coroutine_handle<promise_type>::from_promise(*this)}; }
    std::suspend_always initial_suspend() const noexcept { return {}; }
    std::suspend_never final_suspend() const noexcept { return {}; }
    void return_void() const noexcept {}
    void unhandled_exception() const noexcept { logEscaped("the loop"); }
  };

  std::coroutine_handle<promise_type> handle;
};

Scope::Root Scope::run(Task<void> task) {
  // Gone before the coroutine counts as ended, with all that it holds.
  Task<void> running = std::move(task);
  co_await std::move(running);
}

Scope::Scope(Loop& loop) : loop_(loop), state_(std::make_shared<State>()) {}

Scope::~Scope() {
  close();
}

void Scope::close() {
  state_->close();
}

bool Scope::take(Root root) {
  try {
    if (const auto place = state_->add(root.handle)) {
      root.handle.promise().place = *place;
      root.handle.promise().state = state_;
      return true;
    }
  } catch (...) {
    root.handle.destroy();
    throw;
  }
  root.handle.destroy();
  return false;
}

void Scope::spawn(Task<void> task) {
  const Root root = run(std::move(task));
  if (!take(root)) return;
  try {
    post([root] { root.handle.resume(); });
  } catch (...) {
    root.handle.destroy();
    throw;
  }
}

void Scope::start(Task<void> task) {
  const Root root = run(std::move(task));
  if (take(root)) root.handle.resume();
}

bool Scope::waitUntilEmpty(std::chrono::milliseconds limit) {
  return state_->waitUntilEmpty(limit);
}

void Scope::post(Function function) {
  state_->addFunction();
  try {
    loop_.post([state = state_, function = std::move(function)] {
      state->run(function);
      state->removeFunction();
    });
  } catch (...) {
    state_->removeFunction();
    throw;
  }
}

Loop::TimerNumber Scope::postAfter(std::chrono::milliseconds delay, Function function) {
  return loop_.postAfter(
      delay, [state = state_, function = std::move(function)] { state->run(function); });
}

void Scope::postAside(Function function) {
  state_->addFunction();
  try {
    loop_.postAside([state = state_, function = std::move(function)]() mutable {
      state->runAside(std::move(function));
      state->removeFunction();
    });
  } catch (...) {
    state_->removeFunction();
    throw;
  }
}

void Scope::cancel(TimerNumber timer) {
  loop_.cancel(timer);
}

Loop::Moment Scope::now() const {
  return loop_.now();
}

std::int64_t Scope::wallClock() const {
  return loop_.wallClock();
}

}  // namespace kestrowan::async
