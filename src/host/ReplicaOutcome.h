#pragma once

#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <utility>

#include "mount/DescribedError.h"
#include "replica/Outcome.h"

namespace kestrowan::host {

/// Beyond all limits within which the replica answers.
inline constexpr std::chrono::seconds kLongestLookUp{90};

/// What a call of the replica comes to, waited for; ETIMEDOUT after `limit`. Not on the replica's
/// loop.
template <typename T, typename Start>
replica::Outcome<T> outcome(std::chrono::milliseconds limit, const Start& start) {
  auto promise = std::make_shared<std::promise<replica::Outcome<T>>>();
  auto future = promise->get_future();
  start([promise](replica::Outcome<T> result) { promise->set_value(std::move(result)); });
  if (future.wait_for(limit) != std::future_status::ready) {
    return describedError(ETIMEDOUT, "there was no answer in time");
  }
  return future.get();
}

}  // namespace kestrowan::host
