#pragma once

#include <exception>
#include <future>
#include <memory>
#include <type_traits>
#include <utility>

#include "platform/base/Task.h"

namespace kestrowan::test {

namespace detail {

// The promise is shared so that it outlives the call that fulfils it, whoever is faster.
template <typename T>
Task<void> deliver(Task<T> task, std::shared_ptr<std::promise<T>> promise) {
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

/// Starts `task` on the shared executor.
template <typename T>
std::future<T> started(Task<T> task) {
  auto promise = std::make_shared<std::promise<T>>();
  auto future = promise->get_future();
  startDetached(detail::deliver(std::move(task), std::move(promise)));
  return future;
}

/// Runs `task` to its end, and gives its result or throws its exception. Not for the executor's
/// own threads.
template <typename T>
T resultOf(Task<T> task) {
  return started(std::move(task)).get();
}

}  // namespace kestrowan::test
