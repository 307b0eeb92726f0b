#pragma once

#include <future>
#include <memory>
#include <utility>

#include "platform/base/Fulfil.h"
#include "platform/base/Task.h"

namespace kestrowan::test {

/// Starts `task` on the shared executor.
template <typename T>
std::future<T> started(Task<T> task) {
  auto promise = std::make_shared<std::promise<T>>();
  auto future = promise->get_future();
  startDetached(fulfil(std::move(promise), std::move(task)));
  return future;
}

/// Runs `task` to its end, and gives its result or throws its exception. Not for the executor's
/// own threads.
template <typename T>
T resultOf(Task<T> task) {
  return started(std::move(task)).get();
}

}  // namespace kestrowan::test
