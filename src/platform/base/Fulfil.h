#pragma once

#include <exception>
#include <future>
#include <memory>
#include <type_traits>
#include <utility>

#include "platform/base/Task.h"

namespace kestrowan {

/// Awaits `task` and gives `promise` what it comes to, so that a thread that runs no coroutine can
/// wait for it. A promise that is let go of before tells of a task that was freed where it waited.
template <typename T>
Task<void> fulfil(std::shared_ptr<std::promise<T>> promise, Task<T> task) {
  try {
    if constexpr (std::is_void_v<T>) {
      co_await std::move(task);
      promise->set_value();
    } else {
      promise->set_value(co_await std::move(task));
    }
  } catch (...) {
    promise->set_exception(std::current_exception());
  }
}

}  // namespace kestrowan
