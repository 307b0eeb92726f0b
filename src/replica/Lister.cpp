#include "replica/Lister.h"

#include <malloc.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "async/Scope.h"
#include "platform/base/Threads.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/CaughtError.h"
#include "replica/ErrorClass.h"

namespace kestrowan::replica {

namespace {

using std::chrono::milliseconds;

/// Folders in use are listed anew after this time, more or less a tenth.
constexpr milliseconds kWatchInterval{30000};
/// A folder counts as in use for so long after an access.
constexpr std::int64_t kUseTime = 120000;
/// A folder that takes long to list is listed so much more rarely.
constexpr std::int64_t kDurationFactor = 20;
/// What such a folder's listing proves holds for so many times as long.
constexpr std::int64_t kCertainFactor = 2;
/// Without anything to show instead, somebody waits this long for a listing.
constexpr milliseconds kFirstListingWait{60000};

/// A listing of so many entries takes memory that is given back to the system after this time.
constexpr std::size_t kLargeListing = 5000;
constexpr milliseconds kTrimDelay{1000};

/// So often in a row a listing that did not come whole is asked for anew by itself.
constexpr std::uint32_t kRepeats = 8;

}  // namespace

/// One caller of `prepare`, answered once: by the listing or by the clock.
struct Lister::Waiter {
  Completion<Done> completion;
  std::optional<async::Loop::TimerNumber> timer;
  bool answered = false;
};

Lister::Lister(Core& core, Health& health, std::function<void(const ItemPtr&)> changed)
    : core_(core), health_(health), changed_(std::move(changed)) {}

bool Lister::isKnown(const Item& folder) const {
  return folder.listedAt != 0 || !folder.base;
}

/// Whether the folder was listed within so many milliseconds, or so many times the time that it
/// takes.
bool Lister::isRecent(const Item& folder, std::int64_t within, std::int64_t factor) const {
  // What only exists here is as fresh as can be.
  if (!folder.base) return true;
  if (folder.listedAt == 0) return false;
  const std::int64_t age = core_.milliseconds() - folder.listedAt;
  const std::int64_t rest = folder.folder ? folder.folder->lastDuration * factor : 0;
  return age >= 0 && age <= std::max(within, std::min(rest, core_.options.usableTime.count()));
}

bool Lister::isFresh(const Item& folder, std::int64_t within) const {
  return isRecent(folder, within, kDurationFactor);
}

bool Lister::isCertain(const Item& folder) const {
  if (folder.folder && folder.folder->partialListings > 0) return false;
  return isRecent(folder, core_.options.freshTime.count(), kCertainFactor);
}

bool Lister::isComplete(const ItemPtr& folder, const Listing& listing) const {
  return listing.provesAbsence() && core_.folder(folder).suspectedDigest == 0;
}

void Lister::prepare(const ItemPtr& folder, Need need, Completion<Done> completion) {
  std::unique_lock lock(core_.mutex);
  if (folder->gone) {
    lock.unlock();
    completion(posixError(ESTALE));
    return;
  }
  FolderRuntime& runtime = core_.folder(folder);
  const bool wasIdle = core_.milliseconds() - runtime.lastUse > kUseTime && runtime.open == 0;
  runtime.lastUse = core_.milliseconds();
  if (wasIdle && folder->base) watch(folder);

  const bool fresh = isFresh(*folder, core_.options.freshTime.count());
  const bool usable = isFresh(*folder, core_.options.usableTime.count());
  const bool known = isKnown(*folder);
  const bool canAsk = health_.isUp() && !core_.stopped;
  if (canAsk && folder->rid != kRootRid) walked(folder);

  if (!folder->base || (fresh && need != Need::forced)) {
    lock.unlock();
    completion(Done{});
    return;
  }
  if (!canAsk) {
    const bool enough = known && need != Need::forced;
    const NSError reason = health_.reason();
    lock.unlock();
    if (enough) {
      completion(Done{});
    } else {
      completion(reason);
    }
    return;
  }
  const bool background =
      (need == Need::usable && usable) || (known && need != Need::forced && health_.isSlow());
  if (background) {
    if (!runtime.listing) begin(folder);
    lock.unlock();
    completion(Done{});
    return;
  }

  auto waiter = std::make_shared<Waiter>();
  waiter->completion = std::move(completion);
  const bool briefly = need == Need::soon || (known && need != Need::forced);
  const milliseconds limit = briefly ? core_.options.listingWait : kFirstListingWait;
  waiter->timer = core_.loop.postAfter(limit, [this, waiter, known, need] {
    if (std::exchange(waiter->answered, true)) return;
    {
      std::lock_guard relock(core_.mutex);
      health_.noteSlow();
    }
    if (known && need != Need::forced) {
      waiter->completion(Done{});
    } else {
      waiter->completion(posixError(ETIMEDOUT));
    }
  });
  auto answer = [this, waiter, known, need](const Outcome<ListingPtr>& outcome) {
    if (std::exchange(waiter->answered, true)) return;
    core_.loop.cancel(*waiter->timer);
    if (outcome.succeeded() || (known && need != Need::forced)) {
      waiter->completion(Done{});
    } else {
      waiter->completion(outcome.error());
    }
  };
  // A listing that is on its way is new enough for a look, but not as a proof.
  if (runtime.listing && need == Need::forced) {
    runtime.listAgain = true;
    runtime.nextListingWaiters.push_back(std::move(answer));
  } else {
    runtime.listingWaiters.push_back(std::move(answer));
    if (!runtime.listing) begin(folder);
  }
}

void Lister::list(const ItemPtr& folder, Completion<ListingPtr> completion) {
  std::unique_lock lock(core_.mutex);
  if (folder->gone || !folder->base || core_.stopped) {
    core_.answer<ListingPtr>(std::move(completion), posixError(ESTALE));
    return;
  }
  FolderRuntime& runtime = core_.folder(folder);
  if (runtime.listing) {
    runtime.listAgain = true;
    runtime.nextListingWaiters.push_back(std::move(completion));
  } else {
    runtime.listingWaiters.push_back(std::move(completion));
    begin(folder);
  }
}

Task<Outcome<ListingPtr>> Lister::listed(ItemPtr folder) {
  auto pending = std::make_shared<OneShot<Outcome<ListingPtr>>>(core_.loop);
  list(folder, [pending](Outcome<ListingPtr> outcome) { pending->resolve(std::move(outcome)); });
  auto result = OneShot<Outcome<ListingPtr>>::result(std::move(pending));
  co_return co_await std::move(result);
}

void Lister::begin(const ItemPtr& folder) {
  FolderRuntime& runtime = core_.folder(folder);
  core_.loop.spawn(run(folder));
  runtime.listing = true;
}

Task<void> Lister::run(ItemPtr folder) {
  std::optional<NSError> problem;
  try {
    co_await ask(folder);
  } catch (...) {
    problem = caughtError();
  }
  if (!problem) co_return;
  std::lock_guard lock(core_.mutex);
  core_.log("cannot be listed", *folder, problem->localizedDescription());
  if (core_.folder(folder).listing) finish(folder, *problem);
}

Task<void> Lister::ask(ItemPtr folder) {
  NSFileProviderItemIdentifier identifier;
  Sequence begun = 0;
  const std::int64_t at = core_.milliseconds();
  const std::int64_t uptime = core_.uptime();
  {
    std::lock_guard lock(core_.mutex);
    if (!folder->base || folder->gone) {
      finish(folder, posixError(ESTALE));
      co_return;
    }
    identifier = folder->base->identifier;
    begun = ++core_.sequence;
  }
  auto outcome = co_await core_.provider.list(identifier);
  // For a large folder that takes long, and no call must wait for it.
  std::shared_ptr<Listing> listing;
  if (outcome.succeeded()) {
    listing = std::make_shared<Listing>(outcome.value(), folder->rid, identifier, core_.options);
    outcome.value().clear();
  }

  std::unique_lock lock(core_.mutex);
  if (core_.stopped) {
    finish(folder, posixError(ESTALE));
    co_return;
  }
  health_.note(outcome.succeeded() ? std::nullopt : std::optional(outcome.error()));
  if (folder->base && !folder->gone && folder->base->identifier != identifier) {
    // It was looked for where it no longer is.
    core_.loop.spawn(run(folder));
    co_return;
  }
  if (!outcome.succeeded()) {
    if (errorClass(outcome.error()) != ErrorClass::ambiguous) {
      if (outcome.error().domain() == NSPOSIXErrorDomain) {
        core_.log("cannot be listed", *folder, outcome.error().localizedDescription());
      }
      finish(folder, outcome.error());
    } else if (folder->rid != kRootRid) {
      core_.loop.spawn(lookForFolder(folder, outcome.error()));
    } else {
      // There is nothing above that could tell more.
      const NSError unreachable(NSURLErrorDomain, NSURLErrorCannotConnectToHost);
      health_.note(unreachable);
      finish(folder, unreachable);
    }
    co_return;
  }
  if (!folder->base || folder->gone) {
    finish(folder, posixError(ESTALE));
    co_return;
  }
  listing->begun = begun;
  core_.refusedEntries += static_cast<std::int64_t>(listing->refused);
  core_.folder(folder).lastDuration = core_.uptime() - uptime;
  listing->whole = !core_.options.cameWhole ||
                   core_.options.cameWhole(identifier, milliseconds(core_.uptime() - uptime));
  noteWholeness(folder, listing->whole);
  try {
    if (apply(folder, *listing)) {
      folder->listedAt = at;
      if (listing->whole) core_.save(folder);
    }
    finish(folder, ListingPtr(listing));
    if (listing->entries.size() >= kLargeListing) {
      core_.loop.postAfter(kTrimDelay, [] { ::malloc_trim(0); });
    }
  } catch (const NSError& error) {
    finish(folder, error);
  }
}

/// A listing that did not come whole is asked for anew, at first soon.
void Lister::noteWholeness(const ItemPtr& folder, bool whole) {
  FolderRuntime& runtime = core_.folder(folder);
  if (whole) {
    if (std::exchange(runtime.partialListings, 0) != 0) {
      core_.log("the listing came whole again", *folder);
      core_.tally.note(*folder);
    }
    return;
  }
  ++core_.partialListings;
  if (++runtime.partialListings == 1) {
    core_.log("a listing did not come whole and removes nothing", *folder);
    core_.tally.note(*folder);
  }
  if (runtime.partialListings <= kRepeats) {
    listLater(folder, backOff(runtime.partialListings, core_.random()));
  }
}

Task<void> Lister::lookForFolder(ItemPtr folder, NSError error) {
  ItemPtr parent;
  {
    std::lock_guard lock(core_.mutex);
    if (folder->base) parent = core_.table.find(folder->base->parent);
  }
  std::optional<NSError> verdict;
  if (parent) {
    try {
      const auto outcome = co_await listed(parent);
      if (!outcome.succeeded()) verdict = outcome.error();
    } catch (...) {
      verdict = caughtError();
    }
  }
  std::lock_guard lock(core_.mutex);
  if (!verdict) {
    const bool absent = folder->gone || !folder->base;
    verdict = absent ? NSFileProviderError(NSFileProviderErrorCode::noSuchItem) : error;
  }
  finish(folder, *verdict);
}

void Lister::finish(const ItemPtr& folder, Outcome<ListingPtr> outcome) {
  FolderRuntime& runtime = core_.folder(folder);
  runtime.listing = false;
  auto waiters = std::move(runtime.listingWaiters);
  runtime.listingWaiters.clear();
  for (const auto& waiter : waiters) {
    untilThereIsMemory([&] { core_.answer<ListingPtr>(waiter, outcome); });
  }
  if (std::exchange(runtime.listAgain, false)) {
    runtime.listingWaiters.swap(runtime.nextListingWaiters);
    begin(folder);
  } else {
    runtime.left.clear();
  }
}

void Lister::listLater(const ItemPtr& folder, milliseconds delay) {
  core_.loop.postAfter(delay, [this, folder] {
    std::lock_guard lock(core_.mutex);
    if (core_.stopped || folder->gone || !folder->base || !health_.isUp()) return;
    if (!core_.folder(folder).listing) begin(folder);
  });
}

void Lister::look(const ItemPtr& folder) {
  if (!health_.isUp() || folder->gone || !folder->base) return;
  if (core_.folder(folder).listing) {
    core_.folder(folder).listAgain = true;
  } else {
    begin(folder);
  }
}

void Lister::setOpen(const ItemPtr& folder, bool open) {
  FolderRuntime& runtime = core_.folder(folder);
  runtime.lastUse = core_.milliseconds();
  if (open) {
    if (++runtime.open == 1 && folder->base) watch(folder);
  } else if (runtime.open > 0) {
    --runtime.open;
  }
}

/// Lists the folder every half minute for as long as it is in use.
void Lister::watch(const ItemPtr& folder) {
  FolderRuntime& runtime = core_.folder(folder);
  if (std::exchange(runtime.watched, true)) return;
  const std::int64_t jitter =
      static_cast<std::int64_t>(core_.random() % (kWatchInterval.count() / 5)) -
      kWatchInterval.count() / 10;
  const milliseconds delay(
      std::max(kWatchInterval.count() + jitter, runtime.lastDuration * kDurationFactor));
  core_.loop.postAfter(delay, [this, folder] {
    std::lock_guard lock(core_.mutex);
    FolderRuntime& later = core_.folder(folder);
    later.watched = false;
    if (core_.stopped || folder->gone || !folder->base) return;
    if (later.open == 0 && core_.milliseconds() - later.lastUse > kUseTime) return;
    const std::int64_t age = core_.milliseconds() - folder->listedAt;
    const std::int64_t pause =
        std::max(core_.options.freshTime.count(), later.lastDuration * kDurationFactor);
    if (health_.isUp() && !later.listing && age > pause) begin(folder);
    watch(folder);
  });
}

}  // namespace kestrowan::replica
