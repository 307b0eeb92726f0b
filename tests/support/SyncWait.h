#pragma once

#include <future>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "platform/base/Task.h"

namespace kestrowan::test {

namespace detail {

template <typename T>
Task<void> settle(Task<T> task, std::shared_ptr<std::promise<T>> promise) {
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

}  // namespace detail

/// Runs `task` in the background and waits for its result or its exception.
template <typename T>
T syncWait(Task<T> task) {
  auto promise = std::make_shared<std::promise<T>>();
  auto future = promise->get_future();
  startDetached(detail::settle(std::move(task), std::move(promise)));
  return future.get();
}

}  // namespace kestrowan::test
