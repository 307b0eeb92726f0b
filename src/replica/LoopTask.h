#pragma once

#include <coroutine>
#include <memory>
#include <utility>

#include "platform/base/Task.h"
#include "platform/base/Threads.h"
#include "replica/Loop.h"

namespace kestrowan::replica {

/// A coroutine that nobody awaits: it begins at once, on the calling thread, and frees itself at
/// its end. An exception that leaves it is a line in the log.
struct Detached {
  struct promise_type {
    Detached get_return_object() const noexcept { return {}; }
    std::suspend_never initial_suspend() const noexcept { return {}; }
    std::suspend_never final_suspend() const noexcept { return {}; }
    void return_void() const noexcept {}
    void unhandled_exception() const noexcept { logEscaped("the loop"); }
  };
};

/// Begins `task` on the loop.
inline void startOn(Loop& loop, Task<void> task) {
  auto shared = std::make_shared<Task<void>>(std::move(task));
  loop.post([shared] {
    [](std::shared_ptr<Task<void>> running) -> Detached { co_await std::move(*running); }(shared);
  });
}

}  // namespace kestrowan::replica
