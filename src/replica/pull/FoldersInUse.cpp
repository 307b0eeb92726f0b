#include "replica/pull/FoldersInUse.h"

#include <algorithm>
#include <utility>

#include "replica/model/View.h"

namespace kestrowan::replica::pull {

using model::Item;
using model::ItemNumber;
using model::Time;
using model::View;
using std::chrono::milliseconds;

namespace {

/// Folders in use are listed anew after this time, more or less a tenth.
constexpr milliseconds kUseInterval{30000};
/// A folder counts as in use for so long after an access.
constexpr milliseconds kUseTime{120000};

}  // namespace

FoldersInUse::FoldersInUse(model::Tree& tree, async::Scope& scope, remote::Health& health,
                           const Options& options, const Freshness& freshness, Looks& looks)
    : tree_(tree),
      scope_(scope),
      health_(health),
      options_(options),
      freshness_(freshness),
      looks_(looks),
      random_(std::random_device()()) {}

bool FoldersInUse::isInUse(ItemNumber number, const Folder& folder) const {
  return folder.open > 0 || watched_.contains(number) ||
         (folder.lastUse && scope_.now() - *folder.lastUse <= kUseTime);
}

void FoldersInUse::noteUse(const Item& folder) {
  bool wasIdle = false;
  {
    std::lock_guard lock(mutex_);
    Folder& known = folders_[folder.number()];
    wasIdle = !isInUse(folder.number(), known);
    known.lastUse = scope_.now();
  }
  if (wasIdle && folder.there()) lookLater(folder.number());
}

void FoldersInUse::setOpen(ItemNumber number, bool isOpen) {
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
  if (isFirst) lookLater(number);
}

void FoldersInUse::setWatched(const std::vector<ItemNumber>& items, milliseconds interval) {
  std::unordered_map<ItemNumber, bool> watched;
  {
    const View view(tree_);
    for (const ItemNumber number : items) {
      const Item* item = view->find(number);
      if (item && item->isFile() && item->here()) item = view->find(item->here()->place.folder);
      if (item && item->here()) watched.emplace(item->number(), Freshness::isKnown(*item));
    }
  }
  std::vector<ItemNumber> sooner;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [folder, isKnown] : watched) {
      if (interval < watchInterval_ || !watched_.contains(folder)) sooner.push_back(folder);
    }
    watched_ = std::move(watched);
    watchInterval_ = interval;
    watchedCount_ = watched_.size();
  }
  for (const ItemNumber folder : sooner) lookLater(folder);
}

bool FoldersInUse::isWatched(ItemNumber folder) const {
  std::lock_guard lock(mutex_);
  const auto found = watched_.find(folder);
  return found != watched_.end() && found->second;
}

/// Lists the folder again and again for as long as it is in use.
void FoldersInUse::lookLater(ItemNumber number) {
  const milliseconds pause = freshness_.leastPause(number);
  milliseconds delay{0};
  async::Loop::Moment due;
  {
    std::lock_guard lock(mutex_);
    auto& next = folders_[number].next;
    const bool isWatched = watched_.contains(number);
    if (next && !isWatched) return;
    const milliseconds interval = isWatched ? watchInterval_ : kUseInterval;
    const auto fifth = interval / 5;
    const milliseconds jitter(static_cast<std::int64_t>(random_() % fifth.count()));
    delay = std::max(pause, interval - fifth / 2 + jitter);
    due = scope_.now() + delay;
    if (next && *next <= due) return;
    next = due;
  }
  scope_.postAfter(delay, [this, number, due] { lookAgain(number, due); });
}

void FoldersInUse::lookAgain(ItemNumber number, async::Loop::Moment due) {
  bool isUsed = false;
  {
    std::lock_guard lock(mutex_);
    Folder& folder = folders_[number];
    // Another timer is to do it.
    if (folder.next != due) return;
    folder.next.reset();
    isUsed = isInUse(number, folder);
  }
  bool isOld = false;
  {
    const View view(tree_);
    const Item* folder = view->find(number);
    if (!isUsed || !folder || !folder->here() || !folder->there()) return;
    const auto listedAt = folder->attributes().listedAt;
    const auto pause = std::max(options_.freshTime, freshness_.leastPause(number));
    isOld = !listedAt || Time(milliseconds(scope_.wallClock())) - *listedAt > pause;
  }
  if (isOld && health_.isUp()) looks_.lookSoon(number);
  lookLater(number);
}

}  // namespace kestrowan::replica::pull
