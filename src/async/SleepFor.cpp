#include "async/SleepFor.h"

#include <memory>

#include "platform/base/OneShot.h"

namespace kestrowan::async {

Task<void> sleepFor(Loop& loop, std::chrono::milliseconds delay) {
  const auto end = std::make_shared<OneShot<void>>(loop);
  loop.postAfter(delay, [end] { end->resolve(); });
  auto ended = OneShot<void>::result(end);
  co_await std::move(ended);
}

}  // namespace kestrowan::async
