#include "replica/push/Outbox.h"

#include <algorithm>
#include <cerrno>
#include <exception>

#include "async/WithTimeout.h"
#include "platform/base/Threads.h"
#include "platform/foundation/CaughtError.h"
#include "replica/Log.h"
#include "replica/model/View.h"
#include "replica/plan/Plan.h"

namespace kestrowan::replica::push {

using async::Loop;
using model::Content;
using model::Edit;
using model::Item;
using model::ItemNumber;
using model::Time;
using model::View;
using std::chrono::milliseconds;

namespace {

/// What could not be begun or noted is tried again after this time.
constexpr milliseconds kPause{1000};

bool isRefused(const Item* item) {
  return item && item->attributes().failure &&
         item->attributes().failure->failureClass == model::FailureClass::refused;
}

}  // namespace

Outbox::Outbox(model::Tree& tree, async::Scope& scope, remote::Health& health,
               const Options& options, const pull::Settler& settler, pull::Refresher& refresher,
               pull::Downloader& downloader, Push& push, Refusals& refusals, OpenWait& openWait)
    : tree_(tree),
      scope_(scope),
      health_(health),
      settler_(settler),
      refresher_(refresher),
      downloader_(downloader),
      push_(push),
      refusals_(refusals),
      openWait_(openWait),
      queue_(scope, options),
      lostAnswers_(tree, scope, settler, refresher, [this] {
        queue_.noteAnswer();
        wake();
      }) {}

Time Outbox::now() const {
  return Time(milliseconds(scope_.wallClock()));
}

void Outbox::noteChange(ItemNumber item, milliseconds delay) {
  queue_.noteChange(item, delay);
  wake();
}

void Outbox::noteUrgent(ItemNumber item, milliseconds delay) {
  queue_.noteUrgent(item, delay);
  wake();
}

void Outbox::note(ItemNumber item) {
  queue_.note(item);
  wake();
}

void Outbox::forget(ItemNumber item) {
  queue_.forget(item);
  wake();
}

void Outbox::retryAll() {
  {
    const View view(tree_);
    queue_.retryAll(*view);
  }
  wake();
}

void Outbox::restore() {
  {
    const View view(tree_);
    queue_.restore(*view);
  }
  wake();
}

bool Outbox::isSending(ItemNumber item) const {
  return queue_.isTaken(item);
}

bool Outbox::isIdle() const {
  return queue_.isIdle();
}

std::optional<Time> Outbox::changedAt(ItemNumber item) const {
  return queue_.changedAt(item);
}

std::uint64_t Outbox::order(ItemNumber item) const {
  return queue_.order(item);
}

bool Outbox::isStopped() const {
  std::lock_guard lock(mutex_);
  return isStopped_;
}

void Outbox::wake() {
  {
    std::lock_guard lock(mutex_);
    if (isStopped_ || std::exchange(isPumping_, true)) return;
  }
  scope_.post([this] { pump(); });
}

/// Sees to it that `pump` runs when the first item is due.
void Outbox::schedule() {
  const auto first = queue_.nextDue();
  std::lock_guard lock(mutex_);
  if (isStopped_ || !first || (timer_ && timer_->first <= *first)) return;
  if (timer_) scope_.cancel(timer_->second);
  const auto wait = std::chrono::ceil<milliseconds>(*first - scope_.now());
  timer_.emplace(*first,
                 scope_.postAfter(std::max(wait, milliseconds(0)), [this] { endSchedule(); }));
}

void Outbox::endSchedule() {
  {
    std::lock_guard lock(mutex_);
    timer_.reset();
  }
  wake();
}

void Outbox::pump() {
  {
    std::lock_guard lock(mutex_);
    isPumping_ = false;
    if (isStopped_) return;
  }
  {
    const View view(tree_);
    queue_.makeReady(*view);
  }
  if (health_.isUp()) {
    lostAnswers_.tend();
    while (!isStopped()) {
      const auto item = queue_.take();
      if (!item) break;
      const bool isDone = guarded("what is next for an item", [&] { advance(*item); });
      if (!isDone) finish(*item, kPause);
    }
  }
  schedule();
  answerWaiters();
}

/// Asks the planner, and does what it says.
void Outbox::advance(ItemNumber item) {
  plan::Step step;
  {
    const View view(tree_);
    step = plan::plan(*view, item, now(), settler_.names());
    if (std::holds_alternative<plan::Stuck>(step)) {
      logItem("nothing that waits can be sent: a defect", *view, item);
    }
  }
  if (const auto* other = std::get_if<plan::WaitFor>(&step)) {
    queue_.waitFor(item, other->item);
    wake();
  } else if (std::holds_alternative<plan::WaitForAnswer>(step)) {
    queue_.waitForAnswer(item);
  } else if (const auto* until = std::get_if<plan::WaitUntil>(&step)) {
    finish(item, std::max(until->time - now(), milliseconds(1)));
  } else if (const auto* look = std::get_if<plan::Look>(&step)) {
    start(item, refresher_.look(look->folders));
  } else if (const auto* fetch = std::get_if<plan::Fetch>(&step)) {
    start(item, downloader_.fetch(fetch->item));
  } else if (const auto* settling = std::get_if<plan::Settle>(&step)) {
    settle(item, *settling);
  } else if (const auto* pushing = std::get_if<plan::Push>(&step)) {
    push(item, *pushing);
  } else if (std::holds_alternative<plan::Stuck>(step)) {
    finish(item, std::nullopt);
  } else {
    queue_.end(item);
    wake();
  }
}

void Outbox::settle(ItemNumber item, const plan::Settle& step) {
  bool isSettled = false;
  {
    Edit edit(tree_);
    const plan::Step again = plan::plan(*edit, item, now(), settler_.names());
    const auto* same = std::get_if<plan::Settle>(&again);
    // A file that a program has open is looked at again when it is closed.
    isSettled = !same || !(*same == step) || settler_.settle(edit, step);
    settler_.settleAll(edit);
    edit.commit();
  }
  finish(item, isSettled ? std::optional(milliseconds(0)) : std::nullopt);
}

/// A removal of what goes with a folder above is the removal of that folder.
plan::Push Outbox::wholePush(const plan::Push& push) const {
  if (push.change != plan::Change::remove) return push;
  const View view(tree_);
  const Item* item = view->find(push.item);
  if (!item || !item->there()) return push;
  for (const Item* at = item; at && at->there(); at = view->find(at->there()->place.folder)) {
    if (at == item) continue;
    if (at->here() || at->number() == ItemNumber::root) break;
    // It is on its way, with all that is in it.
    if (isSending(at->number())) return {push.change, at->number(), at->there()->place, {}};
  }
  const Item& whole = view->item(push_.removedWith(*view, push.item));
  return {push.change, whole.number(), whole.there()->place, Content::none};
}

void Outbox::push(ItemNumber item, const plan::Push& planned) {
  const plan::Push push = wholePush(planned);
  if (push.item != item) {
    // The other one goes by a third name first.
    if (queue_.yieldTo(item, push.item)) {
      start(push.item, push_.carryOut(push, changedAt(push.item)));
    }
    return;
  }
  {
    // What was refused for good waits for the user.
    const View view(tree_);
    if (isRefused(view->find(item))) return finish(item, std::nullopt);
  }
  const bool sendsContents = push.content != Content::none;
  const milliseconds wait = sendsContents ? openWait_.openWait(item) : milliseconds(0);
  if (wait > milliseconds(0)) return finish(item, wait);
  if (sendsContents) openWait_.noteSending(item);
  queue_.noteSent(item);
  start(item, push_.carryOut(push, changedAt(item)));
}

void Outbox::start(ItemNumber item, Task<void> task) {
  const bool isStarted =
      guarded("the sending of an item", [&] { scope_.spawn(run(item, std::move(task))); });
  if (!isStarted) finish(item, kPause);
}

Task<void> Outbox::run(ItemNumber item, Task<void> task) {
  std::optional<NSError> problem;
  try {
    co_await std::move(task);
  } catch (...) {
    problem = caughtError();
  }
  std::optional<milliseconds> delay = milliseconds(0);
  if (problem && !isStopped()) {
    // Without a row for it the failure is forgotten, and found again by the next try.
    const bool isNoted =
        guarded("the failure of a request", [&] { delay = refusals_.take(item, *problem); });
    if (!isNoted) delay = kPause;
  }
  finish(item, delay);
}

/// It is looked at again after the delay; without one when it is changed or tried again.
void Outbox::finish(ItemNumber item, std::optional<milliseconds> delay) {
  queue_.finish(item, delay);
  wake();
}

Task<void> Outbox::untilSynced(milliseconds limit) {
  auto waiter = std::make_shared<OneShot<void>>(scope_);
  {
    std::lock_guard lock(mutex_);
    syncWaiters_.push_back(waiter);
  }
  wake();
  const auto late = std::make_exception_ptr(posixError(ETIMEDOUT));
  co_await async::withTimeout(scope_, limit, late, std::move(waiter));
}

/// Whether everything has arrived, or what has not is refused; absent while something is on its
/// way.
std::optional<bool> Outbox::isSynced() const {
  const View view(tree_);
  if (queue_.isBusy()) return std::nullopt;
  if (!queue_.isEmpty()) return false;
  // What a program still has open is queued when it is closed.
  const auto& pending = view->pending();
  const bool isOpen = std::any_of(pending.begin(), pending.end(),
                                  [&](ItemNumber item) { return !isRefused(view->find(item)); });
  if (isOpen) return std::nullopt;
  return pending.empty();
}

void Outbox::answerWaiters() {
  // A waiter that comes from now on waits for what it has changed before.
  std::vector<std::shared_ptr<OneShot<void>>> waiters;
  {
    std::lock_guard lock(mutex_);
    waiters.swap(syncWaiters_);
  }
  if (waiters.empty()) return;
  const auto synced = isSynced();
  {
    std::lock_guard lock(mutex_);
    if (!synced && !isStopped_) {
      syncWaiters_.insert(syncWaiters_.end(), waiters.begin(), waiters.end());
      return;
    }
  }
  for (const auto& waiter : waiters) {
    if (synced.value_or(false)) {
      waiter->resolve();
    } else {
      waiter->reject(std::make_exception_ptr(posixError(EIO)));
    }
  }
}

void Outbox::stop() {
  std::vector<std::shared_ptr<OneShot<void>>> waiters;
  {
    std::lock_guard lock(mutex_);
    isStopped_ = true;
    waiters.swap(syncWaiters_);
  }
  for (const auto& waiter : waiters) waiter->reject(std::make_exception_ptr(posixError(EIO)));
}

}  // namespace kestrowan::replica::push
