#include "replica/remote/Retry.h"

#include <algorithm>

#include "async/SleepFor.h"
#include "replica/remote/ErrorClass.h"
#include "replica/remote/Health.h"

namespace kestrowan::replica::remote {

namespace {

using std::chrono::milliseconds;

/// Before the second attempt; twice as long before each further one.
constexpr milliseconds kFirstPause{100};
constexpr unsigned kMostDoublings = 10;

std::optional<async::Loop::Moment> endOf(const async::Loop& loop,
                                         std::optional<milliseconds> limit) {
  if (!limit) return std::nullopt;
  return loop.now() + *limit;
}

}  // namespace

Retry::Retry(async::Loop& loop, Health& health, unsigned attempts,
             std::optional<milliseconds> limit)
    : loop_(loop), health_(health), attempts_(attempts), end_(endOf(loop, limit)) {}

Task<bool> Retry::after(NSError error) {
  if (!isPassing(error)) co_return false;
  const bool isAway = errorClass(error) == ErrorClass::down;
  // Where time is what bounds them, attempts that met no server do not count.
  if (!(isAway && end_) && ++made_ >= attempts_) co_return false;
  if (end_ && loop_.now() >= *end_) co_return false;
  if (isAway) {
    auto reached = health_.awaitServer();
    co_return co_await std::move(reached);
  }
  const auto pause = kFirstPause * (1u << std::min(made_ - 1, kMostDoublings));
  if (end_ && loop_.now() + pause > *end_) co_return false;
  auto slept = async::sleepFor(loop_, pause);
  co_await std::move(slept);
  co_return true;
}

}  // namespace kestrowan::replica::remote
