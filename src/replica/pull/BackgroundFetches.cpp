#include "replica/pull/BackgroundFetches.h"

#include <cerrno>
#include <chrono>
#include <utility>

#include "async/SleepFor.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::replica::pull {

namespace {

/// A thumbnailer that waits for its turn asks for it so often.
constexpr std::chrono::milliseconds kPause{20};

}  // namespace

Task<BackgroundFetches::Turn> BackgroundFetches::turn(std::shared_ptr<const Caller> caller,
                                                      std::int64_t size) {
  if (!caller || options_.backgroundMayFetch) co_return nullptr;
  const ProgramKind kind = caller->kind();
  if (kind == ProgramKind::ordinary) co_return nullptr;
  if (kind == ProgramKind::background || size > options_.thumbnailSize) {
    refuse(*caller);
    throw posixError(EACCES);
  }
  while (!beginThumbnail()) co_await async::sleepFor(scope_, kPause);
  co_return Turn(this, [this](void*) { endThumbnail(); });
}

bool BackgroundFetches::mayLookAhead(const Caller* caller) const {
  return !caller || options_.backgroundMayFetch || caller->kind() == ProgramKind::ordinary;
}

BackgroundFetches::Refused BackgroundFetches::refused() const {
  std::lock_guard lock(mutex_);
  return refused_;
}

void BackgroundFetches::refuse(const Caller& caller) {
  std::string name = caller.name();
  std::lock_guard lock(mutex_);
  ++refused_.count;
  refused_.last = std::move(name);
}

bool BackgroundFetches::beginThumbnail() {
  const bool isQuiet = downloader_.inFlight() == 0;
  std::lock_guard lock(mutex_);
  if (!isQuiet || isFetchingThumbnail_) return false;
  isFetchingThumbnail_ = true;
  return true;
}

void BackgroundFetches::endThumbnail() {
  std::lock_guard lock(mutex_);
  isFetchingThumbnail_ = false;
}

}  // namespace kestrowan::replica::pull
