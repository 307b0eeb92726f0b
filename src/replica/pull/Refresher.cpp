#include "replica/pull/Refresher.h"

#include <cerrno>
#include <utility>

#include "async/WithTimeout.h"
#include "platform/foundation/NSError.h"
#include "replica/model/View.h"

namespace kestrowan::replica::pull {

using model::Item;
using model::ItemNumber;
using model::View;
using std::chrono::milliseconds;

namespace {

/// Without anything to show instead, a caller waits this long for a listing.
constexpr milliseconds kFirstListingWait{60000};

}  // namespace

Refresher::Refresher(model::Tree& tree, async::Scope& scope, remote::Provider& provider,
                     remote::Health& health, const Options& options, const ListingMerge& merge,
                     NameForms& forms, Touches& touches)
    : tree_(tree),
      scope_(scope),
      health_(health),
      options_(options),
      freshness_(scope, options),
      looks_(tree, scope, provider, health, options, merge, forms, touches, freshness_),
      inUse_(tree, scope, health, options, freshness_, looks_) {}

Refresher::Answer Refresher::answerFor(const Item& folder, Need need) const {
  const bool isFresh = freshness_.isRecent(folder, options_.freshTime);
  if (!folder.there() || (isFresh && need != Need::forced)) return Answer::now;
  const bool isEnough = Freshness::isKnown(folder) && need != Need::forced;
  if (!health_.isUp()) return isEnough ? Answer::now : Answer::server;
  const bool isUsable = freshness_.isRecent(folder, options_.usableTime);
  if ((need == Need::usable && isUsable) || (isEnough && health_.isSlow())) {
    return Answer::background;
  }
  return Answer::wait;
}

bool Refresher::isPrepared(ItemNumber number, Need need) {
  const View view(tree_);
  const Item* folder = view->find(number);
  if (!folder || !folder->here()) return false;
  if (answerFor(*folder, need) != Answer::now) return false;
  inUse_.noteUse(*folder);
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
      inUse_.noteUse(*folder);
      answer = answerFor(*folder, need);
      isKnown = Freshness::isKnown(*folder);
    }
    switch (answer) {
      case Answer::now:
        co_return;
      case Answer::background:
        looks_.lookSoon(number);
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
  auto waiter = looks_.join(number, need == Need::forced, !isEnough);
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

}  // namespace kestrowan::replica::pull
