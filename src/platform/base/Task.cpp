#include "platform/base/Task.h"

#include "platform/base/Executor.h"
#include "platform/base/Fatal.h"

namespace kestrowan {

namespace {

struct Detached {
  struct promise_type {
    Detached get_return_object() const noexcept { return {}; }
    std::suspend_never initial_suspend() const noexcept { return {}; }
    std::suspend_never final_suspend() const noexcept { return {}; }
    void return_void() const noexcept {}
    void unhandled_exception() const noexcept {
      fatalError("an error left a background task unhandled");
    }
  };
};

Detached run(Task<void> task) {
  co_await Executor::shared().schedule();
  co_await std::move(task);
}

}  // namespace

void startDetached(Task<void> task) {
  run(std::move(task));
}

}  // namespace kestrowan
