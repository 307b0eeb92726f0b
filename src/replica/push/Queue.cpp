#include "replica/push/Queue.h"

#include <algorithm>
#include <utility>

namespace kestrowan::replica::push {

using async::Loop;
using model::Content;
using model::FailureClass;
using model::Item;
using model::ItemNumber;
using model::Time;
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

std::optional<FailureClass> failureClass(const Item* item) {
  if (!item || !item->attributes().failure) return std::nullopt;
  return item->attributes().failure->failureClass;
}

}  // namespace

Queue::Queue(const async::Scope& scope, const Options& options)
    : scope_(scope), options_(options) {}

Time Queue::now() const {
  return Time(milliseconds(scope_.wallClock()));
}

Queue::Entry& Queue::entry(ItemNumber item) {
  const auto [found, isNew] = entries_.try_emplace(item);
  if (isNew) found->second.order = ++lastOrder_;
  return found->second;
}

Queue::Ready& Queue::readyWith(const Entry& entry) {
  return entry.isUpload ? readyContents_ : readyNames_;
}

unsigned& Queue::takenWith(const Entry& entry) {
  return entry.isUpload ? contentsTaken_ : namesTaken_;
}

/// Takes it from where it waits, or gives its place back.
void Queue::takeOut(ItemNumber item, Entry& entry) {
  switch (entry.stage) {
    case Stage::delayed:
      delayed_.erase({entry.due, item});
      break;
    case Stage::ready:
      readyWith(entry).erase({entry.isLarge, entry.order});
      break;
    case Stage::blocked:
      if (const auto found = blocked_.find(entry.blocker); found != blocked_.end()) {
        found->second.erase(item);
        if (found->second.empty()) blocked_.erase(found);
      }
      break;
    case Stage::taken:
      --takenWith(entry);
      break;
  }
}

void Queue::enqueue(ItemNumber item, Entry& entry, milliseconds delay) {
  takeOut(item, entry);
  entry.stage = Stage::delayed;
  entry.due = scope_.now() + delay;
  delayed_.insert({entry.due, item});
}

void Queue::block(ItemNumber item, Entry& entry, ItemNumber blocker) {
  takeOut(item, entry);
  entry.stage = Stage::blocked;
  entry.blocker = blocker;
  blocked_[blocker].insert(item);
}

/// What waited for the item is due.
void Queue::release(ItemNumber blocker) {
  const auto found = blocked_.find(blocker);
  if (found == blocked_.end()) return;
  const auto waiting = found->second;
  for (const ItemNumber item : waiting) enqueue(item, entries_.at(item), milliseconds(0));
}

void Queue::noteChange(ItemNumber item, milliseconds delay) {
  std::lock_guard lock(mutex_);
  Entry& changed = entry(item);
  changed.changedAt = now();
  if (changed.stage == Stage::taken) {
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

void Queue::noteUrgent(ItemNumber item, milliseconds delay) {
  bool wasUrgent = false;
  {
    std::lock_guard lock(mutex_);
    wasUrgent = std::exchange(entry(item).isUrgent, true);
  }
  if (!wasUrgent || delay == milliseconds(0)) noteChange(item, delay);
}

void Queue::note(ItemNumber item) {
  std::lock_guard lock(mutex_);
  const bool isNew = !entries_.contains(item);
  Entry& noted = entry(item);
  if (isNew || noted.stage == Stage::blocked) enqueue(item, noted, milliseconds(0));
}

void Queue::forget(ItemNumber item) {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(item);
  if (found == entries_.end() || found->second.stage == Stage::taken) return;
  takeOut(item, found->second);
  entries_.erase(found);
  release(item);
}

void Queue::retryAll(const model::State& state) {
  std::lock_guard lock(mutex_);
  for (auto& [number, waiting] : entries_) {
    const auto failure = failureClass(state.find(number));
    const bool hasFailed = failure == FailureClass::transient || failure == FailureClass::held;
    if ((waiting.stage == Stage::delayed && hasFailed) ||
        (waiting.stage == Stage::blocked && failure != FailureClass::refused)) {
      enqueue(number, waiting, milliseconds(0));
    }
  }
}

void Queue::restore(const model::State& state) {
  std::lock_guard lock(mutex_);
  for (const ItemNumber number : state.pending()) {
    const auto& failure = state.item(number).attributes().failure;
    if (failure && failure->failureClass == FailureClass::refused) continue;
    const milliseconds wait = failure ? failure->next - now() : milliseconds(0);
    enqueue(number, entry(number), std::clamp(wait, milliseconds(0), kLongestWait));
  }
}

void Queue::makeReady(const model::State& state) {
  std::lock_guard lock(mutex_);
  while (!delayed_.empty() && delayed_.begin()->first <= scope_.now()) {
    const ItemNumber number = delayed_.begin()->second;
    Entry& due = entries_.at(number);
    takeOut(number, due);
    const Item* item = state.find(number);
    due.isUpload = item && hasContentsToSend(*item);
    due.isLarge = due.isUpload && item->attributes().size.value_or(0) >= kLarge;
    due.stage = Stage::ready;
    readyWith(due)[{due.isLarge, due.order}] = number;
  }
}

std::optional<ItemNumber> Queue::take() {
  std::lock_guard lock(mutex_);
  const bool hasName = !readyNames_.empty() && namesTaken_ < options_.metadataCalls;
  const bool hasContents = !readyContents_.empty() && contentsTaken_ < options_.uploads;
  if (!hasName && !hasContents) return std::nullopt;
  const ItemNumber item = (hasName ? readyNames_ : readyContents_).begin()->second;
  Entry& taken = entries_.at(item);
  takeOut(item, taken);
  taken.stage = Stage::taken;
  taken.isChanged = false;
  ++takenWith(taken);
  return item;
}

std::optional<Loop::Moment> Queue::nextDue() const {
  std::lock_guard lock(mutex_);
  if (delayed_.empty()) return std::nullopt;
  return delayed_.begin()->first;
}

void Queue::finish(ItemNumber item, std::optional<milliseconds> delay) {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(item);
  if (found == entries_.end()) return;
  Entry& done = found->second;
  if (std::exchange(done.isChanged, false))
    delay = delay ? std::max(*delay, done.nextDelay) : done.nextDelay;
  if (delay) {
    enqueue(item, done, std::clamp(*delay, milliseconds(0), kLongestWait));
  } else {
    block(item, done, ItemNumber::none);
  }
  release(item);
  release(kAnswers);
}

void Queue::end(ItemNumber item) {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(item);
  if (found == entries_.end()) return;
  Entry& done = found->second;
  if (std::exchange(done.isChanged, false)) {
    enqueue(item, done, done.nextDelay);
  } else {
    takeOut(item, done);
    entries_.erase(found);
  }
  release(item);
}

void Queue::waitFor(ItemNumber item, ItemNumber other) {
  std::lock_guard lock(mutex_);
  release(item);
  if (!entries_.contains(other)) enqueue(other, entry(other), milliseconds(0));
  block(item, entries_.at(item), other);
}

void Queue::waitForAnswer(ItemNumber item) {
  std::lock_guard lock(mutex_);
  release(item);
  block(item, entries_.at(item), kAnswers);
}

bool Queue::yieldTo(ItemNumber item, ItemNumber other) {
  std::lock_guard lock(mutex_);
  Entry& first = entry(other);
  const bool isFree = first.stage != Stage::taken;
  if (isFree) {
    takeOut(other, first);
    first.stage = Stage::taken;
    first.isChanged = false;
    first.isUpload = false;
    ++takenWith(first);
  }
  block(item, entries_.at(item), other);
  return isFree;
}

void Queue::noteSent(ItemNumber item) {
  std::lock_guard lock(mutex_);
  entries_.at(item).isUrgent = false;
}

void Queue::noteAnswer() {
  std::lock_guard lock(mutex_);
  release(kAnswers);
}

bool Queue::isTaken(ItemNumber item) const {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(item);
  return found != entries_.end() && found->second.stage == Stage::taken;
}

bool Queue::isIdle() const {
  std::lock_guard lock(mutex_);
  return namesTaken_ == 0 && contentsTaken_ == 0;
}

bool Queue::isBusy() const {
  std::lock_guard lock(mutex_);
  return std::any_of(entries_.begin(), entries_.end(),
                     [](const auto& each) { return each.second.stage != Stage::blocked; });
}

bool Queue::isEmpty() const {
  std::lock_guard lock(mutex_);
  return entries_.empty();
}

std::optional<Time> Queue::changedAt(ItemNumber item) const {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(item);
  if (found == entries_.end() || found->second.changedAt == Time()) return std::nullopt;
  return found->second.changedAt;
}

std::uint64_t Queue::order(ItemNumber item) const {
  std::lock_guard lock(mutex_);
  const auto found = entries_.find(item);
  return found == entries_.end() ? 0 : found->second.order;
}

}  // namespace kestrowan::replica::push
