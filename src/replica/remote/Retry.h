#pragma once

#include <chrono>
#include <optional>

#include "async/Loop.h"
#include "platform/base/Task.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::replica::remote {

class Health;

/// One request that changes nothing, and is made again after it failed for a passing reason: a
/// server that did not do what it was asked for, a connection that broke, no server for a moment.
/// A local object of the coroutine that makes the request; used on the loop only.
class Retry {
 public:
  /// At most so many attempts, the next not later than `limit`, if there is one, after now.
  Retry(async::Loop& loop, Health& health, unsigned attempts,
        std::optional<std::chrono::milliseconds> limit);

  /// After an attempt that failed: waits until the next is to be made. False when there is to be
  /// none, and the caller gets `error`.
  Task<bool> after(NSError error);

 private:
  async::Loop& loop_;
  Health& health_;
  const unsigned attempts_;
  const std::optional<async::Loop::Moment> end_;
  unsigned made_ = 0;
};

}  // namespace kestrowan::replica::remote
