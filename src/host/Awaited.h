#pragma once

#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <utility>

#include "mount/DescribedError.h"
#include "platform/base/Fulfil.h"
#include "platform/base/Task.h"
#include "replica/Replica.h"

namespace kestrowan::host {

/// Beyond all limits within which the replica answers.
inline constexpr std::chrono::seconds kLongestLookUp{90};

/// What a call of the replica comes to, waited for on the calling thread, which is not the
/// replica's loop. Throws what the call throws, and ETIMEDOUT after `limit`.
template <typename T>
T awaited(replica::Replica& replica, Task<T> task, std::chrono::milliseconds limit) {
  auto promise = std::make_shared<std::promise<T>>();
  auto future = promise->get_future();
  replica.start(fulfil(std::move(promise), std::move(task)));
  if (future.wait_for(limit) != std::future_status::ready) {
    throw describedError(ETIMEDOUT, "there was no answer in time");
  }
  try {
    return future.get();
  } catch (const std::future_error&) {
    throw describedError(ESHUTDOWN, "the mount ended before there was an answer");
  }
}

}  // namespace kestrowan::host
