#include "replica/pull/Refresher.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "async/WithTimeout.h"
#include "platform/base/Threads.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/CaughtError.h"
#include "replica/Log.h"
#include "replica/model/View.h"
#include "replica/remote/ErrorClass.h"
#include "replica/remote/Retry.h"

namespace kestrowan::replica::pull {

using async::Loop;
using model::Edit;
using model::Item;
using model::ItemNumber;
using model::Path;
using model::Time;
using model::View;
using remote::ErrorClass;
using remote::errorClass;
using std::chrono::milliseconds;

namespace {

/// Folders in use are listed anew after this time, more or less a tenth.
constexpr milliseconds kWatchInterval{30000};
/// A folder counts as in use for so long after an access.
constexpr milliseconds kUseTime{120000};
/// A folder that takes long to list is listed so much more rarely.
constexpr int kDurationFactor = 20;
/// What such a folder's listing proves holds for so many times as long.
constexpr int kCertainFactor = 2;
/// Without anything to show instead, a caller waits this long for a listing.
constexpr milliseconds kFirstListingWait{60000};
/// So often in a row a listing that did not come whole is asked for anew by itself.
constexpr std::uint32_t kRepeats = 8;
/// So often a listing is asked for that fails for a passing reason.
constexpr unsigned kAttempts = 3;
/// So often a look is begun anew because requests of ours changed what was listed meanwhile.
constexpr int kLooks = 9;
constexpr milliseconds kFirstPause{50};

/// What requests of ours have changed since a look began, or are changing now.
std::vector<Path> touchedPaths(const model::State& state, const Touches::Watch& watch) {
  auto paths = watch.touched();
  for (const model::Intent& intent : state.intents().all()) {
    if (!intent.isUnderWay()) continue;
    const auto asked = intent.paths();
    paths.insert(paths.end(), asked.begin(), asked.end());
  }
  return paths;
}

/// Whether a folder that was listed may have been another one meanwhile.
bool isDisturbed(const FolderListings& listings, const std::vector<Path>& touched) {
  return std::any_of(touched.begin(), touched.end(), [&](const Path& path) {
    return std::any_of(listings.begin(), listings.end(),
                       [&](const auto& listed) { return listed.first.isAtOrBelow(path); });
  });
}

/// Whether the folder above has a folder at that path.
bool isListed(const FolderListings& listings, const Path& path) {
  const auto above = listings.find(path.folder());
  if (above == listings.end() || !above->second) return false;
  const auto found = above->second->entries.find(path.name());
  return found != above->second->entries.end() && found->second.kind == model::Kind::folder;
}

}  // namespace

struct Refresher::Look {
  explicit Look(Touches& touches) : watch(touches) {}

  Touches::Watch watch;
  Time began;
  ItemNumber asker = ItemNumber::none;
  FolderListings listings;
  /// Where folders were asked for.
  FolderListings asked;
  /// What answered that they may be no more; their listings are null.
  std::map<Path, NSError> failed;
};

Refresher::Refresher(model::Tree& tree, async::Scope& scope, remote::Provider& provider,
                     remote::Reach& health, const Options& options, const ListingMerge& merge,
                     Touches& touches)
    : tree_(tree),
      scope_(scope),
      provider_(provider),
      health_(health),
      options_(options),
      merge_(merge),
      touches_(touches),
      random_(std::random_device()()) {}

Time Refresher::now() const {
  return Time(milliseconds(scope_.wallClock()));
}

bool Refresher::isKnown(const Item& folder) {
  return folder.attributes().listedAt || !folder.there();
}

/// Whether the folder was listed within that time, or within so many times the time that it takes.
bool Refresher::isRecent(const Item& folder, milliseconds within, int factor) const {
  // What only exists here is as fresh as can be.
  if (!folder.there()) return true;
  if (!folder.attributes().listedAt) return false;
  const auto age = now() - *folder.attributes().listedAt;
  std::lock_guard lock(mutex_);
  const auto found = folders_.find(folder.number());
  const milliseconds duration =
      found == folders_.end() ? milliseconds(0) : found->second.lastDuration;
  return age >= milliseconds(0) &&
         age <= std::max(within, std::min(duration * factor, options_.usableTime));
}

bool Refresher::isPartial(ItemNumber number) const {
  std::lock_guard lock(mutex_);
  const auto found = folders_.find(number);
  return found != folders_.end() && (found->second.partialListings > 0 || found->second.isUnproved);
}

bool Refresher::mayLackNames(ItemNumber number) const {
  std::lock_guard lock(mutex_);
  const auto found = folders_.find(number);
  if (found == folders_.end()) return false;
  // What was not admitted has no name that a file here can have.
  return found->second.partialListings > 0 ||
         (found->second.isUnproved && !found->second.hasRefused);
}

bool Refresher::isCertain(const Item& folder) const {
  return !isPartial(folder.number()) && isRecent(folder, options_.freshTime, kCertainFactor);
}

Refresher::Answer Refresher::answerFor(const Item& folder, Need need) const {
  const bool isFresh = isRecent(folder, options_.freshTime, kDurationFactor);
  if (!folder.there() || (isFresh && need != Need::forced)) return Answer::now;
  const bool isEnough = isKnown(folder) && need != Need::forced;
  if (!health_.isUp()) return isEnough ? Answer::now : Answer::server;
  const bool isUsable = isRecent(folder, options_.usableTime, kDurationFactor);
  if ((need == Need::usable && isUsable) || (isEnough && health_.isSlow())) {
    return Answer::background;
  }
  return Answer::wait;
}

void Refresher::noteUse(const Item& folder) {
  bool wasIdle = false;
  {
    std::lock_guard lock(mutex_);
    Folder& known = folders_[folder.number()];
    wasIdle = known.open == 0 && (!known.lastUse || scope_.now() - *known.lastUse > kUseTime);
    known.lastUse = scope_.now();
  }
  if (wasIdle && folder.there()) watch(folder.number());
}

bool Refresher::isPrepared(ItemNumber number, Need need) {
  const View view(tree_);
  const Item* folder = view->find(number);
  if (!folder || !folder->here()) return false;
  if (answerFor(*folder, need) != Answer::now) return false;
  noteUse(*folder);
  return true;
}

Task<void> Refresher::prepare(ItemNumber number, Need need) {
  for (;;) {
    Answer answer = Answer::now;
    bool isKnown = false;
    {
      const View view(tree_);
      const Item* folder = view->find(number);
      if (!folder || !folder->here()) throw posixError(ESTALE);
      noteUse(*folder);
      answer = answerFor(*folder, need);
      isKnown = Refresher::isKnown(*folder);
    }
    switch (answer) {
      case Answer::now:
        co_return;
      case Answer::background:
        lookSoon(number);
        co_return;
      case Answer::wait:
        co_await await(number, need, isKnown);
        co_return;
      case Answer::server:
        co_await health_.require();
    }
  }
}

Task<void> Refresher::await(ItemNumber number, Need need, bool isKnown) {
  const bool isEnough = isKnown && need != Need::forced;
  auto waiter = join(number, need, !isEnough);
  const bool isBrief = need == Need::soon || isEnough;
  const milliseconds limit = isBrief ? options_.listingWait : kFirstListingWait;
  const NSError late = posixError(ETIMEDOUT);
  try {
    co_await async::withTimeout(scope_, limit, std::make_exception_ptr(late), std::move(waiter));
  } catch (const NSError& error) {
    if (error.is(NSPOSIXErrorDomain, ETIMEDOUT)) health_.noteSlow();
    if (!isEnough) throw;
  }
}

/// Waits for the listing that is on its way, or for the next one.
std::shared_ptr<OneShot<void>> Refresher::join(ItemNumber number, Need need, bool isInsistent) {
  auto waiter = std::make_shared<OneShot<void>>(scope_);
  {
    std::lock_guard lock(mutex_);
    Folder& folder = folders_[number];
    // A listing that is on its way is new enough for a look, but not as a proof.
    const bool isTooEarly = folder.isListing && need == Need::forced;
    folder.listAgain = folder.listAgain || isTooEarly;
    (isTooEarly ? folder.nextWaiters : folder.waiters).push_back({waiter, isInsistent});
    if (isStopped_) waiter->reject(std::make_exception_ptr(posixError(ESHUTDOWN)));
  }
  begin(number);
  return waiter;
}

/// Gives the error to those that can do without the listing. Whether others wait.
bool Refresher::answerUnlessInsistent(ItemNumber number, const NSError& error) {
  Waiters answered;
  bool isAwaited = false;
  {
    std::lock_guard lock(mutex_);
    if (isStopped_) return false;
    Waiters& waiters = folders_[number].waiters;
    const auto insistent = std::stable_partition(
        waiters.begin(), waiters.end(), [](const Waiter& waiter) { return waiter.isInsistent; });
    answered.assign(insistent, waiters.end());
    waiters.erase(insistent, waiters.end());
    isAwaited = !waiters.empty();
  }
  for (const Waiter& waiter : answered) waiter.shot->reject(std::make_exception_ptr(error));
  return isAwaited;
}

Task<void> Refresher::look(std::vector<ItemNumber> folders) {
  if (folders.size() != 1) {
    co_await lookNow(std::move(folders), ItemNumber::none);
    co_return;
  }
  auto listed = OneShot<void>::result(join(folders.front(), Need::forced, true));
  co_await std::move(listed);
}

void Refresher::lookSoon(ItemNumber number) {
  {
    std::lock_guard lock(mutex_);
    if (folders_[number].isListing) return;
  }
  begin(number);
}

void Refresher::lookAfter(ItemNumber number, milliseconds delay) {
  scope_.postAfter(delay, [this, number] {
    if (health_.isUp()) lookSoon(number);
  });
}

void Refresher::begin(ItemNumber number) {
  {
    std::lock_guard lock(mutex_);
    Folder& folder = folders_[number];
    if (folder.isListing || isStopped_) return;
    folder.isListing = true;
  }
  if (!guarded("the listing of a folder", [&] { scope_.spawn(run(number)); })) {
    finish(number, std::make_exception_ptr(posixError(ENOMEM)));
  }
}

Task<void> Refresher::run(ItemNumber number) {
  std::exception_ptr problem;
  try {
    std::vector<ItemNumber> folders{number};
    co_await lookNow(std::move(folders), number);
  } catch (...) {
    const NSError error = caughtError();
    problem = std::make_exception_ptr(error);
    // Nothing else tells of an error of this machine.
    if (error.domain() == NSPOSIXErrorDomain && !error.is(NSPOSIXErrorDomain, ESTALE)) {
      const View view(tree_);
      logItem("cannot be listed", *view, number, error.localizedDescription());
    }
  }
  finish(number, problem);
}

void Refresher::finish(ItemNumber number, const std::exception_ptr& error) {
  Waiters waiters;
  bool again = false;
  {
    std::lock_guard lock(mutex_);
    Folder& folder = folders_[number];
    folder.isListing = false;
    waiters.swap(folder.waiters);
    again = std::exchange(folder.listAgain, false);
    if (again) folder.waiters.swap(folder.nextWaiters);
  }
  for (const Waiter& waiter : waiters) {
    if (error) {
      waiter.shot->reject(error);
    } else {
      waiter.shot->resolve();
    }
  }
  if (again) begin(number);
}

/// `asker`: the folder whose waiters this is for; none for a caller that insists.
Task<void> Refresher::lookNow(std::vector<ItemNumber> folders, ItemNumber asker) {
  for (int looks = 0; looks < kLooks; ++looks) {
    std::vector<ItemNumber> asked = folders;
    const bool isWritten = co_await lookOnce(std::move(asked), asker);
    if (isWritten) co_return;
    co_await pause(kFirstPause * (1 << looks));
  }
  throw NSError(NSURLErrorDomain, NSURLErrorNetworkConnectionLost);
}

/// Requests that are on their way may end meanwhile.
Task<void> Refresher::pause(milliseconds time) {
  auto end = std::make_shared<OneShot<void>>(scope_);
  {
    std::lock_guard lock(mutex_);
    std::erase_if(pauses_, [](const auto& pause) { return pause.expired(); });
    pauses_.push_back(end);
    if (isStopped_) end->reject(std::make_exception_ptr(posixError(ESHUTDOWN)));
  }
  scope_.postAfter(time, [end] { end->resolve(); });
  auto ended = OneShot<void>::result(std::move(end));
  co_await std::move(ended);
}

/// Whether what was listed could be written: requests of ours may have moved the folders meanwhile.
Task<bool> Refresher::lookOnce(std::vector<ItemNumber> folders, ItemNumber asker) {
  const auto look = std::make_shared<Look>(touches_);
  look->began = now();
  look->asker = asker;
  std::vector<Path> paths;
  {
    const View view(tree_);
    for (const ItemNumber number : folders) {
      const Item* folder = view->find(number);
      if (folder && folder->there()) paths.push_back(view->therePath(*folder));
    }
  }
  // Where nothing is to be listed, that is what is known now.
  for (bool isWritten = false; !isWritten;) {
    std::optional<NSError> problem;
    try {
      co_await gather(look, std::move(paths));
    } catch (const NSError& error) {
      problem = error;
    }
    if (problem) {
      const View view(tree_);
      // Perhaps it was looked for where it no longer is.
      if (isDisturbed(look->asked, touchedPaths(*view, look->watch))) co_return false;
      throw *problem;
    }
    Edit edit(tree_);
    // A folder that has moved, or moves now, may have been listed in either place.
    if (isDisturbed(look->listings, touchedPaths(*edit, look->watch))) co_return false;
    auto written =
        merge_.write(edit, folders, look->listings, look->watch.touched(), look->began, doubts_);
    paths = std::move(written.lacking);
    isWritten = paths.empty();
    if (!isWritten) continue;
    for (const auto& [path, error] : look->failed) {
      if (isListed(look->listings, path)) throw error;
    }
    edit.commit();
    noteDoubts(*edit, look->listings, written);
    for (const ItemNumber number : folders) {
      const Item* folder = edit->find(number);
      if (!folder || !folder->there()) continue;
      const auto failed = look->failed.find(edit->therePath(*folder));
      if (failed != look->failed.end()) throw failed->second;
    }
  }
  co_return true;
}

/// What a listing lacks and is not believed yet is looked for once more.
void Refresher::noteDoubts(const model::State& state, const FolderListings& listings,
                           plan::Written& written) {
  doubts_ = std::move(written.doubts);
  for (const auto& [path, listing] : listings) {
    const Item* folder = state.atPath(path);
    if (!folder) continue;
    const ItemNumber number = folder->number();
    const bool isUnproved = std::find(written.unproved.begin(), written.unproved.end(), number) !=
                            written.unproved.end();
    {
      std::lock_guard lock(mutex_);
      folders_[number].isUnproved = isUnproved;
      folders_[number].hasRefused = listing && listing->refused > 0;
    }
    const bool isMissing =
        std::any_of(doubts_.missing.begin(), doubts_.missing.end(), [&](const auto& missing) {
          const Item* item = state.find(missing.first);
          return item && item->there() && item->there()->place.folder == number;
        });
    if (doubts_.suspected.contains(number)) {
      lookAfter(number, plan::kSuspicionTime);
    } else if (isMissing) {
      lookAfter(number, plan::kSecondLook);
    }
  }
}

Task<void> Refresher::gather(std::shared_ptr<Look> look, std::vector<Path> paths) {
  for (const Path& path : paths) {
    ItemNumber number = ItemNumber::none;
    NSFileProviderItemIdentifier identifier;
    {
      const View view(tree_);
      if (const Item* folder = view->atPath(path)) {
        number = folder->number();
        identifier = view->identifier(*folder);
      }
    }
    look->asked[path] = nullptr;
    std::shared_ptr<const FolderListing> listing;
    std::optional<NSError> problem;
    try {
      if (number != ItemNumber::none)
        listing = co_await list(number, std::move(identifier), look->asker);
    } catch (const NSError& error) {
      problem = error;
    }
    if (problem) look->failed.emplace(path, requireDoubt(number, *problem));
    look->listings[path] = std::move(listing);
  }
}

/// Asks until there is an answer, or an error that is not a passing one.
Task<std::vector<NSFileProviderItemPtr>> Refresher::ask(NSFileProviderItemIdentifier identifier,
                                                        ItemNumber asker) {
  remote::Retry retry(scope_, health_, kAttempts, options_.listingWait);
  for (;;) {
    std::optional<NSError> problem;
    std::vector<NSFileProviderItemPtr> items;
    try {
      items = co_await provider_.list(identifier);
    } catch (...) {
      problem = caughtError();
    }
    health_.note(problem);
    if (!problem) co_return items;
    const NSError error = *problem;
    const bool isAwaited = asker == ItemNumber::none || !remote::isPassing(error) ||
                           answerUnlessInsistent(asker, error);
    if (!isAwaited) throw error;
    auto again = retry.after(error);
    if (!co_await std::move(again)) throw error;
  }
}

Task<std::shared_ptr<const FolderListing>> Refresher::list(ItemNumber number,
                                                           NSFileProviderItemIdentifier identifier,
                                                           ItemNumber asker) {
  const auto begun = scope_.now();
  const auto items = co_await ask(identifier, asker);
  // For a large folder that takes long, and no call must wait for it.
  const auto listing = std::make_shared<FolderListing>(items, number, identifier, options_);
  const auto duration = std::chrono::duration_cast<milliseconds>(scope_.now() - begun);
  listing->isWhole = !options_.cameWhole || options_.cameWhole(identifier, duration);
  {
    std::lock_guard lock(mutex_);
    folders_[number].lastDuration = duration;
    refusedEntries_ += static_cast<std::int64_t>(listing->refused);
  }
  noteWholeness(number, listing->isWhole);
  co_return listing;
}

/// An error after which the folder may be no more, which the one above it tells. Throws any other.
NSError Refresher::requireDoubt(ItemNumber number, const NSError& error) {
  const ErrorClass kind = errorClass(error);
  if (kind != ErrorClass::ambiguous && kind != ErrorClass::gone) throw error;
  if (number != ItemNumber::root) return error;
  // There is nothing above that could tell more.
  const NSError unreachable(NSURLErrorDomain, NSURLErrorCannotConnectToHost);
  health_.note(unreachable);
  throw unreachable;
}

/// A listing that did not come whole is asked for anew, at first soon.
void Refresher::noteWholeness(ItemNumber number, bool isWhole) {
  std::uint32_t times = 0;
  std::uint64_t random = 0;
  bool isNews = false;
  {
    std::lock_guard lock(mutex_);
    Folder& folder = folders_[number];
    if (isWhole) {
      isNews = std::exchange(folder.partialListings, 0) != 0;
    } else {
      ++partialListings_;
      times = ++folder.partialListings;
      isNews = times == 1;
    }
    random = random_();
  }
  if (isNews) {
    const View view(tree_);
    logItem(isWhole ? "the listing came whole again"
                    : "a listing did not come whole and removes nothing",
            *view, number);
  }
  if (!isWhole && times <= kRepeats) lookAfter(number, remote::backOff(times, random));
}

void Refresher::setOpen(ItemNumber number, bool isOpen) {
  bool isFirst = false;
  {
    std::lock_guard lock(mutex_);
    Folder& folder = folders_[number];
    folder.lastUse = scope_.now();
    if (isOpen) {
      isFirst = ++folder.open == 1;
    } else if (folder.open > 0) {
      --folder.open;
    }
  }
  if (isFirst) watch(number);
}

/// Lists the folder every half minute for as long as it is in use.
void Refresher::watch(ItemNumber number) {
  milliseconds delay{0};
  {
    std::lock_guard lock(mutex_);
    Folder& folder = folders_[number];
    if (std::exchange(folder.isWatched, true)) return;
    const auto fifth = kWatchInterval / 5;
    const milliseconds jitter(static_cast<std::int64_t>(random_() % fifth.count()));
    delay = std::max(kWatchInterval - fifth / 2 + jitter, folder.lastDuration * kDurationFactor);
  }
  scope_.postAfter(delay, [this, number] {
    bool isInUse = false;
    milliseconds pause{0};
    {
      std::lock_guard lock(mutex_);
      Folder& folder = folders_[number];
      folder.isWatched = false;
      isInUse = folder.open > 0 || (folder.lastUse && scope_.now() - *folder.lastUse <= kUseTime);
      pause = std::max(options_.freshTime, folder.lastDuration * kDurationFactor);
    }
    bool isOld = false;
    {
      const View view(tree_);
      const Item* folder = view->find(number);
      if (!isInUse || !folder || !folder->here() || !folder->there()) return;
      const auto listedAt = folder->attributes().listedAt;
      isOld = !listedAt || now() - *listedAt > pause;
    }
    if (isOld && health_.isUp()) lookSoon(number);
    watch(number);
  });
}

std::vector<ItemNumber> Refresher::partialFolders() const {
  std::lock_guard lock(mutex_);
  std::vector<ItemNumber> result;
  for (const auto& [number, folder] : folders_) {
    if (folder.partialListings > 0) result.push_back(number);
  }
  std::sort(result.begin(), result.end());
  return result;
}

std::int64_t Refresher::partialListings() const {
  std::lock_guard lock(mutex_);
  return partialListings_;
}

std::int64_t Refresher::refusedEntries() const {
  std::lock_guard lock(mutex_);
  return refusedEntries_;
}

void Refresher::stop() {
  std::vector<std::weak_ptr<OneShot<void>>> pauses;
  Waiters waiters;
  {
    std::lock_guard lock(mutex_);
    isStopped_ = true;
    pauses.swap(pauses_);
    for (auto& [number, folder] : folders_) {
      for (Waiters* each : {&folder.waiters, &folder.nextWaiters}) {
        waiters.insert(waiters.end(), each->begin(), each->end());
        each->clear();
      }
    }
  }
  const auto reason = std::make_exception_ptr(posixError(ESHUTDOWN));
  for (const Waiter& waiter : waiters) waiter.shot->reject(reason);
  for (const auto& each : pauses) {
    if (const auto pause = each.lock()) pause->reject(reason);
  }
}

}  // namespace kestrowan::replica::pull
