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

/// Contents of at least this size let others go first.
constexpr std::int64_t kLarge = std::int64_t{1} << 20;
/// A clock that was set back meanwhile must not make anything wait for longer.
constexpr milliseconds kLongestWait{15 * 60 * 1000};
/// Stands for the answers of all requests that are under way, where an item is waited for.
constexpr ItemNumber kAnswers{~std::uint64_t{0}};

/// Whether what is to be sent of the item has contents.
bool hasContentsToSend(const Item& item) {
  if (!item.isFile() || !item.here() || item.here()->content == Content::none) return false;
  return !item.agreed() || item.here()->content != item.agreed()->content;
}

}  // namespace

Outbox::Outbox(model::Tree& tree, async::Scope& scope, remote::Reach& health,
               const Options& options, const pull::Settler& settler, pull::Refresher& refresher,
               pull::Downloader& downloader, Push& push, Refusals& refusals, OpenWait& openWait)
    : tree_(tree),
      scope_(scope),
      health_(health),
      options_(options),
      settler_(settler),
      refresher_(refresher),
      downloader_(downloader),
      push_(push),
      refusals_(refusals),
      openWait_(openWait) {}

Time Outbox::now() const {
  return Time(milliseconds(scope_.wallClock()));
}

Outbox::Entry& Outbox::entry(ItemNumber item) {
  const auto [found, isNew] = entries_.try_emplace(item);
  if (isNew) found->second.order = ++lastOrder_;
  return found->second;
}

void Outbox::takeOut(ItemNumber item, Entry& entry) {
  switch (entry.stage) {
    case Stage::delayed:
      delayed_.erase({entry.due, item});
      break;
    case Stage::ready:
      (entry.isUpload ? readyContents_ : readyNames_).erase({entry.isLarge, entry.order});
      break;
    case Stage::blocked:
      if (const auto found = blocked_.find(entry.blocker); found != blocked_.end()) {
        found->second.erase(item);
        if (found->second.empty()) blocked_.erase(found);
      }
      break;
    case Stage::running:
      break;
  }
}

void Outbox::enqueue(ItemNumber item, Entry& entry, milliseconds delay) {
  takeOut(item, entry);
  entry.stage = Stage::delayed;
  entry.due = scope_.now() + delay;
  delayed_.insert({entry.due, item});
}

void Outbox::block(ItemNumber item, Entry& entry, ItemNumber blocker) {
  takeOut(item, entry);
  entry.stage = Stage::blocked;
  entry.blocker = blocker;
  blocked_[blocker].insert(item);
}

/// What waited for the item looks again.
void Outbox::release(ItemNumber blocker) {
  const auto found = blocked_.find(blocker);
  if (found == blocked_.end()) return;
  const auto waiting = std::exchange(found->second, {});
  blocked_.erase(found);
  for (const ItemNumber item : waiting) {
    Entry& waited = entry(item);
    waited.stage = Stage::running;
    enqueue(item, waited, milliseconds(0));
  }
}

void Outbox::noteChange(ItemNumber item, milliseconds delay) {
  {
    std::lock_guard lock(mutex_);
    Entry& changed = entry(item);
    changed.changedAt = now();
    if (changed.stage == Stage::running) {
      changed.isChanged = true;
      changed.nextDelay = delay;
      return;
    }
    if (changed.isUrgent && changed.stage == Stage::delayed) {
      const auto rest = std::chrono::duration_cast<milliseconds>(changed.due - scope_.now());
      delay = std::min(delay, std::max(rest, milliseconds(0)));
    }
    enqueue(item, changed, delay);
  }
  wake();
}

void Outbox::noteUrgent(ItemNumber item, milliseconds delay) {
  bool isUrgent = false;
  {
    std::lock_guard lock(mutex_);
    isUrgent = std::exchange(entry(item).isUrgent, true);
  }
  if (!isUrgent || delay == milliseconds(0)) noteChange(item, delay);
}

void Outbox::note(ItemNumber item) {
  {
    std::lock_guard lock(mutex_);
    const bool isNew = !entries_.contains(item);
    Entry& noted = entry(item);
    const bool waits = !isNew && (noted.stage == Stage::delayed || noted.stage == Stage::ready);
    if (waits || (!isNew && noted.stage == Stage::running)) return;
    enqueue(item, noted, milliseconds(0));
  }
  wake();
}

void Outbox::forget(ItemNumber item) {
  {
    std::lock_guard lock(mutex_);
    const auto found = entries_.find(item);
    if (found == entries_.end() || found->second.stage == Stage::running) return;
    takeOut(item, found->second);
    release(item);
    entries_.erase(item);
  }
  wake();
}

void Outbox::retryAll() {
  {
    const View view(tree_);
    std::lock_guard lock(mutex_);
    for (auto& [number, waiting] : entries_) {
      const Item* item = view->find(number);
      const auto* failure =
          item && item->attributes().failure ? &*item->attributes().failure : nullptr;
      const bool hasFailed = failure && (failure->failureClass == model::FailureClass::transient ||
                                         failure->failureClass == model::FailureClass::held);
      const bool isParked = failure && failure->failureClass == model::FailureClass::refused;
      if ((waiting.stage == Stage::delayed && hasFailed) ||
          (waiting.stage == Stage::blocked && !isParked)) {
        enqueue(number, waiting, milliseconds(0));
      }
    }
  }
  wake();
}

void Outbox::restore() {
  {
    const View view(tree_);
    std::lock_guard lock(mutex_);
    for (const ItemNumber number : view->pending()) {
      const auto& failure = view->item(number).attributes().failure;
      if (failure && failure->failureClass == model::FailureClass::refused) continue;
      const milliseconds wait = failure ? failure->next - now() : milliseconds(0);
      enqueue(number, entry(number), std::clamp(wait, milliseconds(0), kLongestWait));
    }
  }
  wake();
}

bool Outbox::isSending(ItemNumber item) const {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(item);
  return found != entries_.end() && found->second.stage == Stage::running;
}

bool Outbox::isStopped() const {
  std::lock_guard lock(mutex_);
  return isStopped_;
}

bool Outbox::isIdle() const {
  std::lock_guard lock(mutex_);
  return namesRunning_ == 0 && contentsRunning_ == 0;
}

std::optional<Time> Outbox::changedAt(ItemNumber item) const {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(item);
  if (found == entries_.end() || found->second.changedAt == Time()) return std::nullopt;
  return found->second.changedAt;
}

std::uint64_t Outbox::order(ItemNumber item) const {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(item);
  return found == entries_.end() ? 0 : found->second.order;
}

void Outbox::wake() {
  {
    std::lock_guard lock(mutex_);
    if (isStopped_ || std::exchange(isPumping_, true)) return;
  }
  scope_.post([this] { pump(); });
}

/// Sees to it that `pump` runs when the first delay is over.
void Outbox::schedule() {
  if (isStopped_ || delayed_.empty()) return;
  const Loop::Moment first = delayed_.begin()->first;
  if (timer_ && timer_->first <= first) return;
  if (timer_) scope_.cancel(timer_->second);
  const auto wait = std::chrono::ceil<milliseconds>(first - scope_.now());
  timer_.emplace(first, scope_.postAfter(std::max(wait, milliseconds(0)), [this] {
    {
      std::lock_guard lock(mutex_);
      timer_.reset();
    }
    wake();
  }));
}

void Outbox::pump() {
  {
    std::lock_guard lock(mutex_);
    isPumping_ = false;
    if (isStopped_) return;
  }
  makeReady();
  if (health_.isUp()) {
    tend();
    for (;;) {
      std::optional<ItemNumber> item;
      {
        std::lock_guard lock(mutex_);
        item = takeReady();
      }
      if (!item) break;
      advance(*item);
    }
  }
  {
    std::lock_guard lock(mutex_);
    schedule();
  }
  checkWaiters();
}

/// What has waited long enough may go when there is a place for it.
void Outbox::makeReady() {
  const View view(tree_);
  std::lock_guard lock(mutex_);
  while (!delayed_.empty() && delayed_.begin()->first <= scope_.now()) {
    const ItemNumber number = delayed_.begin()->second;
    Entry& due = entries_.at(number);
    delayed_.erase(delayed_.begin());
    const Item* item = view->find(number);
    due.isUpload = item && hasContentsToSend(*item);
    due.isLarge = due.isUpload && item->attributes().size.value_or(0) >= kLarge;
    due.stage = Stage::ready;
    (due.isUpload ? readyContents_ : readyNames_)[{due.isLarge, due.order}] = number;
  }
}

std::optional<ItemNumber> Outbox::takeReady() {
  const bool hasName = !readyNames_.empty() && namesRunning_ < options_.metadataCalls;
  const bool hasContents = !readyContents_.empty() && contentsRunning_ < options_.uploads;
  if (isStopped_ || (!hasName && !hasContents)) return std::nullopt;
  auto& ready = hasName ? readyNames_ : readyContents_;
  const ItemNumber item = ready.begin()->second;
  ready.erase(ready.begin());
  Entry& taken = entries_.at(item);
  taken.stage = Stage::running;
  taken.isChanged = false;
  ++(taken.isUpload ? contentsRunning_ : namesRunning_);
  return item;
}

void Outbox::giveBack(const Entry& entry) {
  --(entry.isUpload ? contentsRunning_ : namesRunning_);
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
    waitFor(item, other->item);
  } else if (std::holds_alternative<plan::WaitForAnswer>(step)) {
    waitForAnswer(item);
  } else if (const auto* until = std::get_if<plan::WaitUntil>(&step)) {
    waitUntil(item, until->time);
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
    end(item);
  }
}

void Outbox::waitFor(ItemNumber item, ItemNumber other) {
  {
    std::lock_guard lock(mutex_);
    Entry& waiting = entries_.at(item);
    giveBack(waiting);
    release(item);
    Entry& blocker = entry(other);
    if (blocker.stage == Stage::delayed && blocker.due == Loop::Moment()) {
      enqueue(other, blocker, milliseconds(0));
    }
    block(item, entries_.at(item), other);
  }
  wake();
}

void Outbox::waitForAnswer(ItemNumber item) {
  std::lock_guard lock(mutex_);
  Entry& waiting = entries_.at(item);
  giveBack(waiting);
  release(item);
  block(item, waiting, kAnswers);
}

/// What requests without an answer need, whatever became of their items.
void Outbox::tend() {
  std::vector<std::pair<model::IntentNumber, plan::Step>> steps;
  {
    const View view(tree_);
    for (const auto& intent : view->intents().all()) {
      if (!intent.isUnderWay()) {
        steps.emplace_back(intent.number, plan::planForIntent(*view, intent.number, now()));
      }
    }
  }
  for (const auto& [intent, step] : steps) tend(intent, step);
}

void Outbox::tend(model::IntentNumber intent, const plan::Step& step) {
  if (const auto* look = std::get_if<plan::Look>(&step)) {
    {
      std::lock_guard lock(mutex_);
      if (!looking_.insert(intent).second) return;
    }
    scope_.spawn(lookFor(intent, look->folders));
  } else if (const auto* until = std::get_if<plan::WaitUntil>(&step)) {
    if (tendAt_ && *tendAt_ <= until->time) return;
    tendAt_ = until->time;
    const milliseconds rest = std::clamp(until->time - now(), milliseconds(1), kLongestWait);
    scope_.postAfter(rest, [this] {
      tendAt_.reset();
      wake();
    });
  } else if (std::holds_alternative<plan::Settle>(step)) {
    Edit edit(tree_);
    const plan::Step again = plan::planForIntent(*edit, intent, now());
    const auto* settling = std::get_if<plan::Settle>(&again);
    if (settling && settler_.settle(edit, *settling)) edit.commit();
  }
}

Task<void> Outbox::lookFor(model::IntentNumber intent, std::vector<ItemNumber> folders) {
  milliseconds pause{0};
  try {
    co_await refresher_.look(std::move(folders));
  } catch (...) {
    pause = milliseconds(1000);
  }
  scope_.postAfter(pause, [this, intent] {
    {
      std::lock_guard lock(mutex_);
      looking_.erase(intent);
      release(kAnswers);
    }
    wake();
  });
}

void Outbox::waitUntil(ItemNumber item, Time time) {
  const milliseconds rest = time - now();
  finish(item, std::clamp(rest, milliseconds(1), kLongestWait));
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

/// What was refused for good waits for the user.
bool Outbox::isParked(ItemNumber number) const {
  const View view(tree_);
  const Item* item = view->find(number);
  const auto* failure = item && item->attributes().failure ? &*item->attributes().failure : nullptr;
  return failure && failure->failureClass == model::FailureClass::refused;
}

void Outbox::push(ItemNumber item, const plan::Push& planned) {
  const plan::Push push = wholePush(planned);
  if (push.item != item) {
    // The other one goes by a third name first.
    bool isFree = false;
    {
      std::lock_guard lock(mutex_);
      Entry& other = entry(push.item);
      isFree = other.stage != Stage::running;
      if (isFree) {
        takeOut(push.item, other);
        other.stage = Stage::running;
        other.isChanged = false;
        other.isUpload = false;
        ++namesRunning_;
      }
      Entry& waiting = entries_.at(item);
      giveBack(waiting);
      block(item, waiting, push.item);
    }
    if (isFree) start(push.item, push_.carryOut(push, changedAt(push.item)));
    return;
  }
  if (isParked(item)) return finish(item, std::nullopt);
  const bool sendsContents = push.content != Content::none;
  const milliseconds wait = sendsContents ? openWait_.openWait(item) : milliseconds(0);
  if (wait > milliseconds(0)) return finish(item, wait);
  if (sendsContents) openWait_.noteSending(item);
  {
    std::lock_guard lock(mutex_);
    entries_.at(item).isUrgent = false;
  }
  start(item, push_.carryOut(push, changedAt(item)));
}

void Outbox::start(ItemNumber item, Task<void> task) {
  const bool isStarted =
      guarded("the sending of an item", [&] { scope_.spawn(run(item, std::move(task))); });
  if (!isStarted) finish(item, milliseconds(1000));
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
    if (!isNoted) delay = milliseconds(1000);
  }
  finish(item, delay);
}

/// It is looked at again after the delay; without one when it is changed or tried again.
void Outbox::finish(ItemNumber item, std::optional<milliseconds> delay) {
  {
    std::lock_guard lock(mutex_);
    const auto found = entries_.find(item);
    if (found == entries_.end()) return;
    Entry& done = found->second;
    giveBack(done);
    if (std::exchange(done.isChanged, false))
      delay = delay ? std::max(*delay, done.nextDelay) : done.nextDelay;
    if (delay) {
      enqueue(item, done, *delay);
    } else {
      block(item, done, ItemNumber::none);
    }
    release(item);
    release(kAnswers);
  }
  wake();
}

/// There is nothing to be done about the item.
void Outbox::end(ItemNumber item) {
  {
    std::lock_guard lock(mutex_);
    const auto found = entries_.find(item);
    if (found == entries_.end()) return;
    giveBack(found->second);
    release(item);
    if (found->second.isChanged) {
      const milliseconds delay = found->second.nextDelay;
      found->second.isChanged = false;
      enqueue(item, found->second, delay);
    } else {
      entries_.erase(found);
    }
  }
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

void Outbox::checkWaiters() {
  std::vector<std::shared_ptr<OneShot<void>>> answered;
  bool isRefused = false;
  {
    const View view(tree_);
    std::lock_guard lock(mutex_);
    if (syncWaiters_.empty()) return;
    const bool isBusy = std::any_of(entries_.begin(), entries_.end(), [](const auto& each) {
      return each.second.stage != Stage::blocked;
    });
    if (isBusy && !isStopped_) return;
    isRefused = !entries_.empty();
    // What a program still has open is queued when it is closed.
    if (!isRefused && !view->pending().empty() && !isStopped_) {
      const bool isParked =
          std::all_of(view->pending().begin(), view->pending().end(), [&](ItemNumber number) {
            const auto& failure = view->item(number).attributes().failure;
            return failure && failure->failureClass == model::FailureClass::refused;
          });
      if (!isParked) return;
      isRefused = true;
    }
    answered.swap(syncWaiters_);
  }
  for (const auto& waiter : answered) {
    if (isRefused) {
      waiter->reject(std::make_exception_ptr(posixError(EIO)));
    } else {
      waiter->resolve();
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
