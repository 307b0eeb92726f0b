#include <algorithm>
#include <cerrno>
#include <utility>

#include "async/Scope.h"
#include "platform/base/Threads.h"
#include "platform/foundation/CaughtError.h"
#include "replica/Sender.h"

namespace kestrowan::replica {

namespace {

using std::chrono::milliseconds;

/// Contents of at least this size let others go first.
constexpr std::int64_t kLarge = std::int64_t{1} << 20;
/// Copying a file that is written again and again takes no more than one part in so many.
constexpr std::int64_t kCopyFactor = 20;
/// A clock that was set back meanwhile must not make anything wait for longer.
constexpr milliseconds kLongestWait{15 * 60 * 1000};

bool isUpload(const Item& item) {
  return !item.isFolder() && (item.mustCreate() || item.mustSendContents());
}

}  // namespace

Sender::Sender(Core& core, remote::Health& health, Lister& lister, Fetcher& fetcher)
    : core_(core), health_(health), lister_(lister), fetcher_(fetcher) {
  core_.dropped = [this](const ItemPtr& item) { withdraw(item); };
}

void Sender::changed(const ItemPtr& item, milliseconds delay) {
  if (item->failure) {
    item->failure.reset();
    core_.save(item);
  }
  if (!item->isPending()) {
    withdraw(item);
    return;
  }
  if (item->isSending()) return;
  SyncRuntime& sync = core_.sync(item);
  sync.changedAt = core_.milliseconds();
  if (item->sendNow && sync.place == Place::delayed) {
    delay = std::min(delay, milliseconds(std::max<std::int64_t>(0, sync.due - core_.uptime())));
  }
  enqueue(item, delay);
}

void Sender::withdraw(const ItemPtr& item) {
  if (!item->sync || item->isSending()) return;
  unqueue(item);
  answerVerdict(item, std::nullopt);
  release(item);
  item->sync->order = 0;
  checkWaiters();
}

void Sender::unqueue(const ItemPtr& item) {
  SyncRuntime& sync = core_.sync(item);
  switch (sync.place) {
    case Place::delayed:
      delayed_.erase({sync.due, item->rid});
      break;
    case Place::ready:
      std::erase_if(readyNames_, [&](const auto& entry) { return entry.second == item->rid; });
      std::erase_if(readyContents_, [&](const auto& entry) { return entry.second == item->rid; });
      break;
    case Place::blocked:
      blocked_.erase(item->rid);
      break;
    case Place::idle:
    case Place::sending:
      return;
  }
  sync.place = Place::idle;
}

void Sender::enqueue(const ItemPtr& item, milliseconds delay) {
  unqueue(item);
  SyncRuntime& sync = core_.sync(item);
  if (sync.order == 0) sync.order = ++lastOrder_;
  sync.place = Place::delayed;
  sync.due = core_.uptime() + delay.count();
  delayed_.insert({sync.due, item->rid});
  schedule();
}

/// Sees to it that `pump` runs when the first delay is over.
void Sender::schedule() {
  if (core_.stopped || delayed_.empty()) return;
  const std::int64_t first = delayed_.begin()->first;
  if (timer_ && timer_->first <= first) return;
  if (timer_) core_.loop.cancel(timer_->second);
  const std::int64_t wait = std::max<std::int64_t>(0, first - core_.uptime());
  timer_.emplace(first, core_.loop.postAfter(milliseconds(wait), [this, first] {
    {
      std::lock_guard lock(core_.mutex);
      if (timer_ && timer_->first == first) timer_.reset();
    }
    pump();
  }));
}

void Sender::makeReady(const ItemPtr& item) {
  SyncRuntime& sync = core_.sync(item);
  sync.place = Place::ready;
  const bool upload = isUpload(*item);
  const std::pair<bool, std::uint64_t> key(upload && item->size >= kLarge, sync.order);
  (upload ? readyContents_ : readyNames_)[key] = item->rid;
}

void Sender::pump() {
  std::lock_guard lock(core_.mutex);
  if (core_.stopped) return;
  const std::int64_t now = core_.uptime();
  if (timer_ && timer_->first <= now) {
    core_.loop.cancel(timer_->second);
    timer_.reset();
  }
  while (!delayed_.empty() && delayed_.begin()->first <= now) {
    const auto item = core_.table.find(delayed_.begin()->second);
    if (item) makeReady(item);
    delayed_.erase(delayed_.begin());
  }
  if (health_.isUp()) {
    startReady(readyNames_, namesRunning_, core_.options.metadataCalls);
    startReady(readyContents_, contentsRunning_, core_.options.uploads);
  }
  schedule();
  checkWaiters();
}

void Sender::startReady(std::map<std::pair<bool, std::uint64_t>, Rid>& ready, unsigned& running,
                        unsigned limit) {
  const bool uploads = &ready == &readyContents_;
  while (running < limit && !ready.empty()) {
    const auto item = core_.table.find(ready.begin()->second);
    ready.erase(ready.begin());
    if (!item) continue;
    SyncRuntime& sync = core_.sync(item);
    sync.place = Place::idle;
    if (!item->isPending()) {
      withdraw(item);
      continue;
    }
    if (isUpload(*item) != uploads) {
      makeReady(item);
      continue;
    }
    if (const milliseconds wait = uploads ? openWait(item) : milliseconds(0); wait.count() > 0) {
      enqueue(item, wait);
      continue;
    }
    takeOverIfPossible(item);
    if (!item->isPending()) continue;
    if (const ItemPtr other = blocker(item)) {
      sync.place = Place::blocked;
      blocked_.insert(item->rid);
      core_.sync(other).blocked.push_back(item->rid);
      continue;
    }
    item->sendNow = false;
    if (uploads && item->writers > 0 && !item->sent) sync.sentOpenAt = core_.uptime();
    start(item, uploads);
    ++running;
  }
}

/// How long contents that somebody has open for writing stay here yet.
milliseconds Sender::openWait(const ItemPtr& item) const {
  if (item->writers == 0 || !item->sync->verdictWaiters.empty()) return milliseconds(0);
  std::int64_t until = item->sendNow ? 0 : item->lastWrite + kQuietTime.count();
  if (item->sync->sentOpenAt) {
    // Sending it may cost a copy each time.
    const std::int64_t pause = std::max(kQuietTime.count(), item->sync->copyTime * kCopyFactor);
    until = std::max(until, *item->sync->sentOpenAt + pause);
  }
  return milliseconds(std::max<std::int64_t>(0, until - core_.uptime()));
}

/// A new file in the place of a removed one becomes that one's new contents.
void Sender::takeOverIfPossible(const ItemPtr& item) {
  if (item->isFolder()) return;
  if (item->mustCreate()) {
    const ItemPtr before = core_.table.serverChild(item->parent, item->name);
    if (before && before->mustRemove() && !before->isFolder() && !before->isSending() &&
        !before->sent) {
      takeOver(item, before);
    }
  } else if (item->mustRemove() && !item->sent) {
    if (const ItemPtr after = successor(item)) takeOver(after, item);
  }
}

/// The new file in the place of a removed one, if there is one that could be sent.
ItemPtr Sender::successor(const ItemPtr& item) const {
  const ItemPtr after = core_.table.child(item->base->parent, item->base->name);
  return after && after->mustCreate() && !after->isFolder() && !after->isSending() ? after
                                                                                   : nullptr;
}

void Sender::takeOver(const ItemPtr& item, const ItemPtr& replaced) {
  const std::optional<Base> before = item->base;
  Base base = *replaced->base;
  Rows::Batch batch(core_.rows);
  core_.dropItem(replaced, HistoryReason::replaced);
  item->contentsChanged = true;
  core_.setBase(item, std::move(base));
  if (before) {
    // What the item was at the provider goes once its contents are in their new place.
    const ItemPtr rest = core_.makeItem(before->parent, before->name, item->kind);
    rest->removed = true;
    rest->after = item->rid;
    core_.table.add(rest);
    core_.setBase(rest, before);
    changed(rest, milliseconds(0));
  }
}

void Sender::start(const ItemPtr& item, bool upload) {
  SyncRuntime& sync = core_.sync(item);
  sync.targetName = item->name;
  core_.sending.reserve(core_.sending.size() + 1);
  if (item->sent) doubtFolderDates(item);
  // It runs after this has been left, if it can be begun at all.
  core_.loop.spawn(run(item, upload));
  core_.sending.push_back(item);
  sync.place = Place::sending;
  sync.targetParent = item->parent;
  sync.wholeFolder = item->isFolder();
}

/// Before and after a request: a listing between the two shows the date before or after it.
void Sender::doubtFolderDates(const ItemPtr& item) {
  std::vector<Rid>& folders = core_.sync(item).changedFolders;
  if (item->sent) folders.push_back(item->sent->parent);
  if (item->base) folders.push_back(item->base->parent);
  for (const Rid folder : folders) core_.doubtFolderDate(folder);
}

void Sender::release(const ItemPtr& item) {
  for (const Rid rid : std::exchange(item->sync->blocked, {})) {
    const auto waiting = core_.table.find(rid);
    if (!waiting || !waiting->sync || waiting->sync->place != Place::blocked) continue;
    blocked_.erase(rid);
    waiting->sync->place = Place::idle;
    enqueue(waiting, milliseconds(0));
  }
}

void Sender::finish(const ItemPtr& item, bool upload) {
  --(upload ? contentsRunning_ : namesRunning_);
  std::erase(core_.sending, item);
  SyncRuntime& sync = *item->sync;
  if (!sync.changedFolders.empty()) doubtFolderDates(item);
  sync.changedFolders.clear();
  if (sync.place == Place::sending) sync.place = Place::idle;
  sync.targetParent = 0;
  release(item);
  for (const auto& waiter : std::exchange(sync.endWaiters, {})) waiter->resolve();
  if (!item->gone && item->removed && !item->base && !item->sent) {
    answerVerdict(item, std::nullopt);
    core_.dropItem(item, HistoryReason::removed);
  }
  std::erase_if(core_.unsettled, [](const ItemPtr& each) { return each->gone || !each->sent; });
  if (item->gone) {
    core_.releaseIfUnused(item);
  } else if (!item->isPending()) {
    answerVerdict(item, std::nullopt);
    sync.order = 0;
    if (item->failure) {
      item->failure.reset();
      core_.save(item);
    }
  } else if (sync.place == Place::idle &&
             !(item->failure && item->failure->failureClass == FailureClass::refused)) {
    enqueue(item, milliseconds(0));
  }
}

Task<void> Sender::run(ItemPtr item, bool upload) {
  std::optional<NSError> problem;
  try {
    co_await send(item);
  } catch (...) {
    // Something here, such as the disk: no answer of the provider's.
    problem = caughtError();
  }
  {
    std::lock_guard lock(core_.mutex);
    if (problem && !item->gone && item->sync->place == Place::sending) {
      guarded("the sending of an item", [&] { backOffLater(item, *problem); });
    }
    finish(item, upload);
  }
  pump();
}

Task<void> Sender::send(ItemPtr item) {
  const bool unsure = item->sent.has_value();
  if (unsure) {
    // What is still to be done then may have to wait for others.
    co_await verify(item);
    co_return;
  }
  enum class Kind { nothing, creation, change, removal } kind = Kind::nothing;
  {
    std::lock_guard lock(core_.mutex);
    if (item->gone || core_.stopped || item->sync->place != Place::sending) {
      kind = Kind::nothing;
    } else if (item->mustRemove()) {
      kind = Kind::removal;
    } else if (item->mustCreate()) {
      kind = Kind::creation;
    } else if (item->isPending()) {
      kind = Kind::change;
    }
  }
  if (kind == Kind::removal) co_await sendRemoval(item);
  if (kind == Kind::creation) co_await sendCreation(item);
  if (kind == Kind::change) co_await sendChange(item);
}

void Sender::retryAll() {
  std::vector<ItemPtr> waiting;
  for (const auto& entry : delayed_) {
    if (auto item = core_.table.find(entry.second)) waiting.push_back(std::move(item));
  }
  for (const ItemPtr& item : waiting) {
    if (item->failure && item->failure->failureClass != FailureClass::slow) {
      enqueue(item, milliseconds(0));
    }
  }
  for (const Rid rid : std::exchange(blocked_, {})) {
    if (auto item = core_.table.find(rid)) {
      core_.sync(item).place = Place::idle;
      enqueue(item, milliseconds(0));
    }
  }
}

void Sender::retry(const ItemPtr& item) {
  if (item->isPending()) changed(item, milliseconds(0));
}

void Sender::restore() {
  core_.table.forEach([this](const ItemPtr& item) {
    if (item->sent) core_.unsettled.push_back(item);
    if (!item->isPending()) return;
    if (item->failure && item->failure->failureClass == FailureClass::refused) return;
    const std::int64_t next = item->failure ? item->failure->next * 1000 : 0;
    const std::int64_t wait = std::max<std::int64_t>(0, next - core_.milliseconds());
    enqueue(item, std::min(milliseconds(wait), kLongestWait));
  });
}

void Sender::healthChanged() {
  if (health_.isUp()) {
    retryAll();
    return;
  }
  // Nobody waits for a word that does not come.
  const NSError reason = health_.reason();
  core_.table.forEach([&](const ItemPtr& item) { answerWithoutWord(item, reason); });
}

}  // namespace kestrowan::replica
