#include "replica/pull/Looks.h"

#include <cerrno>
#include <optional>
#include <utility>

#include "async/Aside.h"
#include "async/SleepFor.h"
#include "platform/base/FreeMemory.h"
#include "platform/base/Threads.h"
#include "platform/foundation/CaughtError.h"
#include "replica/Log.h"
#include "replica/model/View.h"
#include "replica/remote/ErrorClass.h"
#include "replica/remote/Retry.h"

namespace kestrowan::replica::pull {

using model::Item;
using model::ItemNumber;
using model::Path;
using model::Time;
using model::View;
using remote::ErrorClass;
using remote::errorClass;
using std::chrono::milliseconds;

namespace {

/// So often in a row a listing that did not come whole is asked for anew by itself.
constexpr std::uint32_t kRepeats = 8;
/// So often a listing is asked for that fails for a passing reason.
constexpr unsigned kAttempts = 3;
/// So often a look is begun anew because requests of ours changed what was listed meanwhile.
constexpr int kLooks = 9;
constexpr milliseconds kFirstPause{50};
/// Between two slices of a large listing other callers get the tree's lock.
constexpr milliseconds kSlicePause{1};

}  // namespace

Looks::Looks(model::Tree& tree, async::Scope& scope, remote::Provider& provider,
             remote::Health& health, const Options& options, const ListingMerge& merge,
             NameForms& forms, Touches& touches, Freshness& freshness)
    : tree_(tree),
      scope_(scope),
      provider_(provider),
      health_(health),
      options_(options),
      merge_(merge),
      forms_(forms),
      touches_(touches),
      freshness_(freshness),
      waiters_(scope),
      underWay_(scope),
      random_(std::random_device()()) {}

Task<void> Looks::look(std::vector<ItemNumber> folders) {
  if (folders.size() != 1) {
    co_await lookNow(std::move(folders), ItemNumber::none);
    co_return;
  }
  auto listed = OneShot<void>::result(join(folders.front(), true, true));
  co_await std::move(listed);
}

FolderWaiters::Shot Looks::join(ItemNumber folder, bool fromNow, bool isInsistent) {
  auto waiter = waiters_.join(folder, fromNow, isInsistent);
  begin(folder);
  return waiter;
}

void Looks::lookSoon(ItemNumber folder) {
  begin(folder);
}

void Looks::lookAfter(ItemNumber folder, milliseconds delay) {
  scope_.postAfter(delay, [this, folder] {
    if (health_.isUp()) lookSoon(folder);
  });
}

void Looks::begin(ItemNumber folder) {
  if (!waiters_.begin(folder)) return;
  if (!guarded("the listing of a folder", [&] { scope_.spawn(run(folder)); })) {
    const bool again = waiters_.end(folder, std::make_exception_ptr(posixError(ENOMEM)));
    if (again) begin(folder);
  }
}

Task<void> Looks::run(ItemNumber number) {
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
  if (waiters_.end(number, problem)) begin(number);
}

/// `asker`: the folder whose waiters this is for; none for a caller that insists.
Task<void> Looks::lookNow(std::vector<ItemNumber> folders, ItemNumber asker) {
  const LooksUnderWay::Mark mark(underWay_, folders);
  for (int looks = 0; looks < kLooks; ++looks) {
    std::vector<ItemNumber> asked = folders;
    const bool isWritten = co_await lookOnce(std::move(asked), asker);
    guarded("the form of names", [this] { forms_.keep(); });
    if (isWritten) co_return;
    co_await pause(kFirstPause * (1 << looks));
  }
  throw NSError(NSURLErrorDomain, NSURLErrorNetworkConnectionLost);
}

/// Requests that are on their way may end meanwhile.
Task<void> Looks::pause(milliseconds time) {
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
Task<bool> Looks::lookOnce(std::vector<ItemNumber> folders, ItemNumber asker) {
  const Time now{milliseconds(scope_.wallClock())};
  const auto look =
      std::make_shared<Look>(tree_, merge_, forms_, touches_, std::move(folders), now);
  // Where nothing is to be listed, that is what is known now.
  for (auto outcome = Look::Outcome::lacking; outcome == Look::Outcome::lacking;) {
    std::optional<NSError> problem;
    try {
      co_await gather(look, asker);
    } catch (const NSError& error) {
      problem = error;
    }
    // Perhaps it was looked for where it no longer is.
    if (problem && look->isMisplaced()) co_return false;
    if (problem) throw *problem;
    outcome = look->write(doubts_);
    if (outcome == Look::Outcome::large) outcome = co_await writeInSlices(look);
    if (outcome == Look::Outcome::disturbed) co_return false;
  }
  for (const Look::Proof& proof : look->proofs()) {
    freshness_.noteProof(proof.folder, proof.isUnproved, proof.hasRefused);
    if (proof.again) lookAfter(proof.folder, *proof.again);
  }
  co_return true;
}

Task<Look::Outcome> Looks::writeInSlices(std::shared_ptr<Look> look) {
  async::Loop::Function compare = [&look] { look->compare(); };
  co_await async::runAside(scope_, std::move(compare));
  for (;;) {
    const auto outcome = look->writeSlice(doubts_);
    if (outcome != Look::Outcome::more) {
      async::Loop::Function forget = [&look] {
        look->forget();
        giveBackFreeMemory();
      };
      co_await async::runAside(scope_, std::move(forget));
      co_return outcome;
    }
    co_await async::sleepFor(scope_, kSlicePause);
  }
}

Task<void> Looks::gather(std::shared_ptr<Look> look, ItemNumber asker) {
  for (const Path& path : look->paths()) {
    ItemNumber number = ItemNumber::none;
    NSFileProviderItemIdentifier identifier;
    {
      const View view(tree_);
      if (const Item* folder = view->atPath(path)) {
        number = folder->number();
        identifier = view->identifier(*folder);
      }
    }
    look->noteAsked(path);
    std::shared_ptr<const FolderListing> listing;
    std::optional<NSError> problem;
    try {
      if (number != ItemNumber::none) listing = co_await list(number, std::move(identifier), asker);
    } catch (const NSError& error) {
      problem = error;
    }
    if (problem) {
      look->fail(path, requireDoubt(number, *problem));
    } else {
      look->add(path, std::move(listing));
    }
  }
}

/// Asks until there is an answer, or an error that is not a passing one.
Task<std::vector<NSFileProviderItemPtr>> Looks::ask(NSFileProviderItemIdentifier identifier,
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
                           waiters_.answerUnlessInsistent(asker, error);
    if (!isAwaited) throw error;
    auto again = retry.after(error);
    if (!co_await std::move(again)) throw error;
  }
}

Task<std::shared_ptr<const FolderListing>> Looks::list(ItemNumber number,
                                                       NSFileProviderItemIdentifier identifier,
                                                       ItemNumber asker) {
  const auto begun = scope_.now();
  auto items = co_await ask(identifier, asker);
  std::shared_ptr<FolderListing> listing;
  const auto admit = [&] {
    listing = std::make_shared<FolderListing>(std::move(items), number, identifier, options_);
  };
  // For a large folder that takes long.
  if (items.size() > SlicedMerge::kSlice) {
    async::Loop::Function aside = [&] {
      admit();
      giveBackFreeMemory();
    };
    co_await async::runAside(scope_, std::move(aside));
  } else {
    admit();
  }
  const auto duration = std::chrono::duration_cast<milliseconds>(scope_.now() - begun);
  listing->isWhole = !options_.cameWhole || options_.cameWhole(identifier, duration);
  freshness_.noteListing(number, duration, listing->refused);
  noteWholeness(number, listing->isWhole);
  co_return listing;
}

/// An error after which the folder may be no more, which the one above it tells. Throws any other.
NSError Looks::requireDoubt(ItemNumber number, const NSError& error) {
  const ErrorClass kind = errorClass(error);
  if (kind != ErrorClass::ambiguous && kind != ErrorClass::gone) throw error;
  if (number != ItemNumber::root) return error;
  // There is nothing above that could tell more.
  const NSError unreachable(NSURLErrorDomain, NSURLErrorCannotConnectToHost);
  health_.note(unreachable);
  throw unreachable;
}

/// A listing that did not come whole is asked for anew, at first soon.
void Looks::noteWholeness(ItemNumber number, bool isWhole) {
  const auto noted = freshness_.noteWholeness(number, isWhole);
  if (noted.isNews) {
    const View view(tree_);
    logItem(isWhole ? "the listing came whole again"
                    : "a listing did not come whole and removes nothing",
            *view, number);
  }
  if (!isWhole && noted.partialListings <= kRepeats) {
    lookAfter(number, remote::backOff(noted.partialListings, random_()));
  }
}

void Looks::stop() {
  waiters_.stop();
  std::vector<std::weak_ptr<OneShot<void>>> pauses;
  {
    std::lock_guard lock(mutex_);
    isStopped_ = true;
    pauses.swap(pauses_);
  }
  for (const auto& each : pauses) {
    if (const auto pause = each.lock())
      pause->reject(std::make_exception_ptr(posixError(ESHUTDOWN)));
  }
}

}  // namespace kestrowan::replica::pull
