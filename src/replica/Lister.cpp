#include "replica/Lister.h"

#include <malloc.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "async/Scope.h"
#include "platform/base/Threads.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/CaughtError.h"
#include "replica/remote/ErrorClass.h"
#include "replica/remote/Retry.h"

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

/// A listing that fails for a passing reason is tried so often in all.
constexpr unsigned kAttempts = 3;

/// So often in a row a listing that did not come whole is asked for anew by itself.
constexpr std::uint32_t kRepeats = 8;

}  // namespace

/// One caller of `prepare`, answered once: by the listing or by the clock.
struct Lister::Waiter {
  Completion<Done> completion;
  std::optional<async::Loop::TimerNumber> timer;
  bool answered = false;
};

Lister::Lister(Core& core, remote::Health& health, std::function<void(const ItemPtr&)> changed)
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
    if (!enough) core_.loop.spawn(prepareOnceReached(folder, need, completion));
    lock.unlock();
    if (enough) completion(Done{});
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
  const bool insists = !known || need == Need::forced;
  // A listing that is on its way is new enough for a look, but not as a proof.
  if (runtime.listing && need == Need::forced) {
    runtime.listAgain = true;
    runtime.nextListingWaiters.push_back({std::move(answer), insists});
  } else {
    runtime.listingWaiters.push_back({std::move(answer), insists});
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
    runtime.nextListingWaiters.push_back({std::move(completion)});
  } else {
    runtime.listingWaiters.push_back({std::move(completion)});
    begin(folder);
  }
}

/// Waits for a server that is not there, for a caller that can do nothing without one.
Task<void> Lister::prepareOnceReached(ItemPtr folder, Need need, Completion<Done> completion) {
  auto reached = health_.awaitServer();
  if (co_await std::move(reached)) {
    prepare(folder, need, std::move(completion));
    co_return;
  }
  std::unique_lock lock(core_.mutex);
  const NSError reason = health_.reason();
  lock.unlock();
  completion(reason);
}

Task<ListingPtr> Lister::listed(ItemPtr folder) {
  auto listing = std::make_shared<OneShot<ListingPtr>>(core_.loop);
  list(folder, [listing](Outcome<ListingPtr> outcome) {
    if (outcome.succeeded()) {
      listing->resolve(std::move(outcome.value()));
    } else {
      listing->reject(std::make_exception_ptr(outcome.error()));
    }
  });
  auto result = OneShot<ListingPtr>::result(std::move(listing));
  co_return co_await std::move(result);
}

void Lister::begin(const ItemPtr& folder) {
  FolderRuntime& runtime = core_.folder(folder);
  core_.loop.spawn(run(folder));
  runtime.listing = true;
}

Task<void> Lister::run(ItemPtr folder) {
  remote::Retry retry(core_.loop, health_, kAttempts, core_.options.listingWait);
  bool isExplained = false;
  for (;;) {
    ListingPtr listing;
    std::optional<NSError> problem;
    try {
      auto asked = ask(folder);
      listing = co_await std::move(asked);
    } catch (...) {
      problem = caughtError();
    }
    if (problem && remote::errorClass(*problem) == remote::ErrorClass::ambiguous &&
        !std::exchange(isExplained, folder->rid != kRootRid)) {
      auto explanation = explained(folder, *problem);
      problem = co_await std::move(explanation);
    }
    if (problem && remote::isPassing(*problem) && answerUnlessInsistent(folder, *problem)) {
      auto again = retry.after(*problem);
      if (co_await std::move(again)) continue;
    }
    std::lock_guard lock(core_.mutex);
    if (!problem) {
      finish(folder, listing);
      co_return;
    }
    if (problem->domain() == NSPOSIXErrorDomain && problem->code() != ESTALE) {
      core_.log("cannot be listed", *folder, problem->localizedDescription());
    }
    finish(folder, *problem);
    co_return;
  }
}

/// Gives the error to those that can do without the listing. Whether others wait.
bool Lister::answerUnlessInsistent(const ItemPtr& folder, const NSError& error) {
  std::lock_guard lock(core_.mutex);
  if (core_.stopped) return false;
  auto& waiters = core_.folder(folder).listingWaiters;
  for (const auto& waiter : waiters) {
    if (waiter.insists) continue;
    untilThereIsMemory([&] { core_.answer<ListingPtr>(waiter.completion, error); });
  }
  std::erase_if(waiters, [](const auto& waiter) { return !waiter.insists; });
  return !waiters.empty();
}

Task<ListingPtr> Lister::ask(ItemPtr folder) {
  for (;;) {
    NSFileProviderItemIdentifier identifier;
    Sequence begun = 0;
    const std::int64_t at = core_.milliseconds();
    const std::int64_t uptime = core_.uptime();
    {
      std::lock_guard lock(core_.mutex);
      if (!folder->base || folder->gone) throw posixError(ESTALE);
      identifier = folder->base->identifier;
      begun = ++core_.sequence;
    }
    // For a large folder that takes long, and no call must wait for it.
    std::shared_ptr<Listing> listing;
    std::optional<NSError> failure;
    try {
      auto request = core_.provider.list(identifier);
      const auto items = co_await std::move(request);
      listing = std::make_shared<Listing>(items, folder->rid, identifier, core_.options);
    } catch (const NSError& error) {
      failure = error;
    }
    std::lock_guard lock(core_.mutex);
    if (core_.stopped) throw posixError(ESTALE);
    health_.note(failure);
    // Perhaps it was looked for where it no longer is.
    if (folder->base && !folder->gone && folder->base->identifier != identifier) continue;
    if (failure) throw *failure;
    if (!folder->base || folder->gone) throw posixError(ESTALE);
    listing->begun = begun;
    take(folder, *listing, at, milliseconds(core_.uptime() - uptime));
    co_return listing;
  }
}

/// Takes what the provider answered to a request that was made then and took so long.
void Lister::take(const ItemPtr& folder, Listing& listing, std::int64_t at, milliseconds duration) {
  core_.refusedEntries += static_cast<std::int64_t>(listing.refused);
  core_.folder(folder).lastDuration = duration.count();
  listing.whole =
      !core_.options.cameWhole || core_.options.cameWhole(folder->base->identifier, duration);
  noteWholeness(folder, listing.whole);
  if (apply(folder, listing)) {
    folder->listedAt = at;
    if (listing.whole) core_.save(folder);
  }
  if (listing.entries.size() >= kLargeListing) {
    core_.loop.postAfter(kTrimDelay, [] { ::malloc_trim(0); });
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
    listLater(folder, remote::backOff(runtime.partialListings, core_.random()));
  }
}

/// The error of a folder that cannot be listed, where it leaves open what is wrong, after a look at
/// the folder above.
Task<NSError> Lister::explained(ItemPtr folder, NSError error) {
  ItemPtr parent;
  {
    std::lock_guard lock(core_.mutex);
    if (folder->rid == kRootRid) {
      // There is nothing above that could tell more.
      const NSError unreachable(NSURLErrorDomain, NSURLErrorCannotConnectToHost);
      health_.note(unreachable);
      co_return unreachable;
    }
    if (folder->base) parent = core_.table.find(folder->base->parent);
  }
  if (parent) {
    try {
      auto listing = listed(parent);
      co_await std::move(listing);
    } catch (...) {
      co_return caughtError();
    }
  }
  std::lock_guard lock(core_.mutex);
  if (!folder->gone && folder->base) co_return error;
  co_return NSFileProviderError(NSFileProviderErrorCode::noSuchItem);
}

void Lister::finish(const ItemPtr& folder, Outcome<ListingPtr> outcome) {
  FolderRuntime& runtime = core_.folder(folder);
  runtime.listing = false;
  auto waiters = std::move(runtime.listingWaiters);
  runtime.listingWaiters.clear();
  for (const auto& waiter : waiters) {
    untilThereIsMemory([&] { core_.answer<ListingPtr>(waiter.completion, outcome); });
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
