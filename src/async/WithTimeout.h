#pragma once

#include <chrono>
#include <exception>
#include <memory>
#include <utility>

#include "async/Loop.h"
#include "platform/base/OneShot.h"

namespace kestrowan::async {

/// A timer of a loop that is forgotten with this object.
class ScopedTimer {
 public:
  ScopedTimer(Loop& loop, std::chrono::milliseconds delay, Loop::Function function)
      : loop_(loop), number_(loop.postAfter(delay, std::move(function))) {}
  ScopedTimer(const ScopedTimer&) = delete;
  ScopedTimer& operator=(const ScopedTimer&) = delete;
  ~ScopedTimer() { loop_.cancel(number_); }

 private:
  Loop& loop_;
  const Loop::TimerNumber number_;
};

/// The result of `shot`, which is abandoned with `error` when there is none within `limit`.
template <typename T>
Task<T> withTimeout(Loop& loop, std::chrono::milliseconds limit, std::exception_ptr error,
                    std::shared_ptr<OneShot<T>> shot) {
  const ScopedTimer timer(loop, limit, [shot, error] { shot->abandon(error); });
  auto result = OneShot<T>::result(std::move(shot));
  co_return co_await std::move(result);
}

}  // namespace kestrowan::async
