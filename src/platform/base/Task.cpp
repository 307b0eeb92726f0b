#include "platform/base/Task.h"

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "platform/base/Executor.h"
#include "platform/base/Threads.h"
#include "platform/foundation/CaughtError.h"

namespace kestrowan {

namespace {

/// Counts the background tasks whose frames exist.
class DetachedCount {
 public:
  static DetachedCount& shared() {
    // Never destroyed: a background task may outlive the static objects of the program.
    static auto* count = new DetachedCount;
    return *count;
  }

  void add() {
    std::lock_guard lock(mutex_);
    ++count_;
  }
  void remove() {
    std::lock_guard lock(mutex_);
    if (--count_ == 0) idle_.notify_all();
  }
  bool waitForNone(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return idle_.wait_for(lock, limit, [this] { return count_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable idle_;
  std::size_t count_ = 0;
};

struct Detached {
  struct promise_type {
    // The frame's memory counts, so that the last thing a task does is to give it back.
    static void* operator new(std::size_t size) {
      void* frame = ::operator new(size);
      DetachedCount::shared().add();
      return frame;
    }
    static void operator delete(void* frame) {
      ::operator delete(frame);
      DetachedCount::shared().remove();
    }

    std::shared_ptr<Abandonment> abandonment = Abandonment::current();

    Detached get_return_object() const noexcept { return {}; }
    std::suspend_never initial_suspend() const noexcept { return {}; }
    std::suspend_never final_suspend() const noexcept { return {}; }
    void return_void() const noexcept {}
    void unhandled_exception() const noexcept { logEscaped("a background task"); }
  };
};

Detached run(Task<void> task) {
  co_await Executor::shared().schedule();
  co_await std::move(task);
}

}  // namespace

std::exception_ptr detail::currentException() noexcept {
  auto caught = std::current_exception();
  try {
    throw;
  } catch (const std::bad_alloc&) {
    return std::make_exception_ptr(asError(caught));
  } catch (const std::length_error&) {
    return std::make_exception_ptr(asError(caught));
  } catch (const std::system_error&) {
    return std::make_exception_ptr(asError(caught));
  } catch (...) {
    return caught;
  }
}

void startDetached(Task<void> task) {
  run(std::move(task));
}

bool waitForDetachedTasks(std::chrono::milliseconds limit) {
  return DetachedCount::shared().waitForNone(limit);
}

}  // namespace kestrowan
