#include "replica/Fetcher.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "async/Scope.h"
#include "platform/base/OneShot.h"
#include "platform/base/Threads.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/CaughtError.h"
#include "replica/remote/Retry.h"

namespace kestrowan::replica {

namespace {

/// Contents are taken only with the version they were asked for; after so many tries, as they are.
constexpr int kTries = 3;
/// A fetch that fails for a passing reason is tried so often in all.
constexpr unsigned kAttempts = 3;

std::optional<std::int64_t> sizeOfFile(const std::string& path) {
  struct stat status;
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  return status.st_size;
}

void setModified(const std::string& path, std::int64_t nanoseconds) {
  constexpr std::int64_t kSecond = 1'000'000'000;
  std::int64_t rest = nanoseconds % kSecond;
  if (rest < 0) rest += kSecond;
  const timespec times[2] = {{0, UTIME_OMIT},
                             {static_cast<time_t>((nanoseconds - rest) / kSecond), rest}};
  ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

}  // namespace

void Fetcher::fetch(const ItemPtr& item, Completion<Done> completion) {
  std::unique_lock lock(core_.mutex);
  std::optional<NSError> refusal;
  if (item->gone && !item->isLeftOver()) {
    refusal = posixError(ESTALE);
  } else if (item->content == 0 && !item->base) {
    refusal = posixError(EIO);
  }
  if (refusal || item->content != 0) {
    lock.unlock();
    if (refusal) {
      completion(*refusal);
    } else {
      completion(Done{});
    }
    return;
  }
  if (!item->fetching) begin(item);
  item->fetching->push_back(std::move(completion));
}

void Fetcher::fetchLater(const ItemPtr& item) {
  if (item->gone || item->isFolder() || item->content != 0 || item->fetching || !item->base ||
      !health_.isUp()) {
    return;
  }
  begin(item);
}

void Fetcher::begin(const ItemPtr& item) {
  auto waiting = std::make_unique<std::vector<Completion<Done>>>();
  core_.loop.spawn(run(item));
  item->fetching = std::move(waiting);
  ++inFlight_;
}

Task<void> Fetcher::run(ItemPtr item) {
  std::optional<NSError> error;
  {
    std::lock_guard lock(core_.mutex);
    try {
      if (item->base) makeRoom(item->base->size);
    } catch (...) {
      error = caughtError();
    }
  }
  try {
    if (!error) {
      auto contents = bring(item);
      co_await std::move(contents);
    }
  } catch (...) {
    error = caughtError();
  }
  std::lock_guard lock(core_.mutex);
  finish(item, error);
}

/// A request in flight that changes where the provider has the item; null when there is none.
ItemPtr Fetcher::moverOf(const Item& item) const {
  const auto found =
      std::find_if(core_.sending.begin(), core_.sending.end(), [&](const ItemPtr& other) {
        return other->rid == item.rid ||
               (other->sync->wholeFolder && (core_.table.isWithin(item, other->rid) ||
                                             core_.table.isWithinAtProvider(item, other->rid)));
      });
  return found == core_.sending.end() ? nullptr : *found;
}

Task<void> Fetcher::untilItStays(ItemPtr item) {
  for (;;) {
    auto ended = std::make_shared<OneShot<void>>(core_.loop);
    {
      std::lock_guard lock(core_.mutex);
      const ItemPtr mover = moverOf(*item);
      if (!mover) co_return;
      mover->sync->endWaiters.push_back(ended);
    }
    auto end = OneShot<void>::result(std::move(ended));
    co_await std::move(end);
  }
}

Task<void> Fetcher::bring(ItemPtr item) {
  remote::Retry retry(core_.loop, health_, kAttempts, std::nullopt);
  co_await reachServer();
  for (int tries = 1;;) {
    co_await untilItStays(item);
    Base before;
    {
      std::lock_guard lock(core_.mutex);
      if (item->gone || !item->base) throw posixError(ESTALE);
      before = *item->base;
    }
    std::optional<NSError> failure;
    remote::FetchedFile file;
    try {
      auto request = core_.provider.fetch(before.identifier, before.size);
      file = co_await std::move(request);
    } catch (const NSError& error) {
      failure = error;
    }
    bool mustWait = false;
    {
      std::lock_guard lock(core_.mutex);
      if (core_.stopped) throw posixError(EIO);
      health_.note(failure);
      if (!failure) {
        if (adoptUnlessStale(item, before, file, tries >= kTries)) co_return;
        ++tries;
      } else {
        // Perhaps it was looked for where it no longer is.
        const bool moved = item->base && item->base->identifier != before.identifier;
        mustWait = (!moved && !moverOf(*item)) || tries++ >= kTries;
      }
    }
    if (!mustWait) continue;
    auto again = retry.after(*failure);
    if (!co_await std::move(again)) throw *failure;
  }
}

/// Waits for a server that is not there, and throws when none comes.
Task<void> Fetcher::reachServer() {
  {
    std::lock_guard lock(core_.mutex);
    if (health_.isUp()) co_return;
  }
  auto reached = health_.awaitServer();
  if (co_await std::move(reached)) co_return;
  std::lock_guard lock(core_.mutex);
  throw health_.reason();
}

/// Takes a fetched file as the item's contents; false when it has to be fetched again. Throws why
/// it cannot be taken.
bool Fetcher::adoptUnlessStale(const ItemPtr& item, const Base& before,
                               const remote::FetchedFile& file, bool last) {
  const auto problem = adopt(item, before, file, last);
  if (!problem) return true;
  ::unlink(file.path.c_str());
  if (problem->is(NSFileProviderErrorDomain,
                  static_cast<std::int64_t>(NSFileProviderErrorCode::versionOutOfDate))) {
    return false;
  }
  throw *problem;
}

/// Takes a fetched file as the item's contents; `versionOutOfDate` when it has to be fetched again.
std::optional<NSError> Fetcher::adopt(const ItemPtr& item, const Base& before,
                                      const remote::FetchedFile& file, bool last) {
  if (item->gone || !item->base) return posixError(ESTALE);
  // Somebody wrote new contents meanwhile.
  if (item->content != 0) {
    ::unlink(file.path.c_str());
    return std::nullopt;
  }
  const auto bytes = sizeOfFile(file.path);
  if (!bytes) return posixError(EIO);
  Base after = baseOf(*file.item, item->base->parent, core_.options, Source::answer);
  // An answer without a version says nothing of the size that was announced.
  if (!after.versionKnown) after.size = before.size;
  const std::int64_t announced = after.size;
  const bool sameVersion = canBeSame(core_.options, before, after);
  const bool same = sameVersion && *bytes == announced;
  if (!same) {
    item->dropPrivileges();
    core_.stamp(*item);
  }
  if (!same && !last) {
    // What was known may be older than the file: the next try compares with what is known now.
    if (item->base->identifier == after.identifier && after.versionKnown) {
      after.name = item->base->name;
      core_.setBase(item, after);
    }
    return NSFileProviderError(NSFileProviderErrorCode::versionOutOfDate);
  }
  if (!same && sameVersion && announced != 0) {
    // Nobody changes the file, and still these are not its contents.
    core_.log("fetched with another size than announced", *item);
    return NSError(NSURLErrorDomain, NSURLErrorCannotParseResponse);
  }
  ContentNumber number = 0;
  try {
    number = core_.store.nextNumber();
    core_.contents.adopt(number, file.path);
    Base base = *item->base;
    if (after.versionKnown && same) {
      base.version = after.version;
      base.versionKnown = true;
      base.date = after.date;
    } else if (!same) {
      base.versionKnown = false;
    }
    base.size = *bytes;
    const std::int64_t size = item->size;
    const std::int64_t modified = item->modified;
    const bool dated = item->modified != modifiedOf(*item->base);
    item->content = number;
    item->contentsChanged = false;
    // Whoever wanted it is about to open it.
    item->lastUse = core_.seconds();
    item->size = *bytes;
    // A time that an application set stays.
    if (!dated) item->modified = modifiedOf(base);
    setModified(core_.contents.path(number), item->modified);
    const bool sizeChanged = item->size != size;
    if (sizeChanged || item->modified != modified) core_.stamp(*item);
    core_.setBase(item, std::move(base));
    if (sizeChanged) core_.itemChanged(item->rid, false);
  } catch (...) {
    item->content = 0;
    if (number != 0) core_.contents.removeIfPossible(number);
    return caughtError();
  }
  return std::nullopt;
}

void Fetcher::finish(const ItemPtr& item, const std::optional<NSError>& error) {
  --inFlight_;
  const auto waiters = std::move(item->fetching);
  const Outcome<Done> outcome = error ? Outcome<Done>(*error) : Outcome<Done>(Done{});
  for (const auto& waiter : *waiters) {
    untilThereIsMemory([&] { core_.answer<Done>(waiter, outcome); });
  }
}

}  // namespace kestrowan::replica
