#include <algorithm>
#include <cerrno>
#include <vector>

#include "platform/foundation/CaughtError.h"
#include "replica/Fetcher.h"

namespace kestrowan::replica {

namespace {

constexpr std::int64_t kGibibyte = std::int64_t{1} << 30;
constexpr std::chrono::milliseconds kWatchInterval{60000};
/// Seconds. Nothing that is still being fetched stays unchanged for so long.
constexpr std::int64_t kLeftoverAge = 3600;

}  // namespace

bool Fetcher::isEvictable(const Item& item) {
  return !item.gone && item.content != 0 && item.base && !item.isPending() && !item.isSending() &&
         !item.localOnly && !item.pinned && item.handles == 0 && !item.removed;
}

std::int64_t Fetcher::cacheLimit() const {
  if (core_.options.cacheLimit > 0) return core_.options.cacheLimit;
  return std::min(10 * kGibibyte, core_.contents.space().capacity / 10);
}

std::int64_t Fetcher::freeSpaceFloor() const {
  if (core_.options.freeSpaceFloor > 0) return core_.options.freeSpaceFloor;
  return replica::freeSpaceFloor(core_.contents.space().capacity);
}

void Fetcher::evict(const ItemPtr& item) {
  const ContentNumber number = item->content;
  item->content = 0;
  item->contents.reset();
  core_.save(item);
  core_.contents.remove(number);
  core_.itemChanged(item->rid, true);
}

void Fetcher::makeRoom(std::int64_t needed) {
  const std::int64_t free = core_.contents.space().free;
  // Looking at every item for every file fetched would take longer than fetching it.
  if (needed > 0 && cachedAtMost_ && *cachedAtMost_ + needed <= cacheLimit() &&
      free - needed >= freeSpaceFloor()) {
    *cachedAtMost_ += needed;
    return;
  }
  const Tally::Usage usage = core_.tally.cached();
  if (needed > 0 && free + usage.bytes - needed < freeSpaceFloor()) {
    // Giving up everything would not be enough.
    throw posixError(ENOSPC);
  }
  cachedAtMost_ = usage.bytes + needed;
  std::int64_t excess =
      std::max(usage.bytes + needed - cacheLimit(), needed + freeSpaceFloor() - free);
  if (excess > 0) {
    const std::int64_t youngest = core_.seconds() - core_.options.evictionAge.count();
    std::vector<ItemPtr> candidates;
    core_.table.forEach([&](const ItemPtr& item) {
      if (isEvictable(*item) && item->lastUse <= youngest) candidates.push_back(item);
    });
    std::sort(candidates.begin(), candidates.end(),
              [](const ItemPtr& a, const ItemPtr& b) { return a->lastUse < b->lastUse; });
    for (const ItemPtr& item : candidates) {
      if (excess <= 0) break;
      excess -= item->size;
      *cachedAtMost_ -= item->size;
      evict(item);
    }
  }
  // The limit of the cache is a wish, the floor of the disk is none.
  if (needed > 0 && core_.contents.space().free - needed < freeSpaceFloor()) {
    throw posixError(ENOSPC);
  }
}

/// Gives `action` what it throws a line in the log for.
void Fetcher::keepLimit(const std::function<void()>& action) {
  try {
    action();
  } catch (...) {
    const auto error = caughtError();
    std::lock_guard lock(core_.mutex);
    core_.log("the limits of the disk cannot be kept", *core_.table.find(kRootRid),
              error.localizedDescription());
  }
}

void Fetcher::keepLimits() {
  keepLimit([this] {
    std::lock_guard lock(core_.mutex);
    makeRoom(0);
  });
  keepLimit([this] { core_.departures.trim(); });
  keepLimit([this] { core_.contents.sweepTemporary(core_.seconds() - kLeftoverAge); });
  keepLimit([this] {
    std::lock_guard lock(core_.mutex);
    if (core_.sending.empty() && inFlight_ == 0 && core_.rows.areWritten()) {
      core_.store.compact();
    }
  });
}

void Fetcher::watchLimits() {
  core_.loop.postAfter(kWatchInterval, [this] {
    {
      std::lock_guard lock(core_.mutex);
      if (core_.stopped) return;
    }
    keepLimits();
    watchLimits();
  });
}

}  // namespace kestrowan::replica
