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
constexpr milliseconds kWatchInterval{30000};
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

bool FoldersInUse::isInUse(const Folder& folder) const {
  return folder.open > 0 || (folder.lastUse && scope_.now() - *folder.lastUse <= kUseTime);
}

void FoldersInUse::noteUse(const Item& folder) {
  bool wasIdle = false;
  {
    std::lock_guard lock(mutex_);
    Folder& known = folders_[folder.number()];
    wasIdle = !isInUse(known);
    known.lastUse = scope_.now();
  }
  if (wasIdle && folder.there()) watch(folder.number());
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
  if (isFirst) watch(number);
}

/// Lists the folder every half minute for as long as it is in use.
void FoldersInUse::watch(ItemNumber number) {
  milliseconds delay = freshness_.leastPause(number);
  {
    std::lock_guard lock(mutex_);
    if (std::exchange(folders_[number].isWatched, true)) return;
    const auto fifth = kWatchInterval / 5;
    const milliseconds jitter(static_cast<std::int64_t>(random_() % fifth.count()));
    delay = std::max(delay, kWatchInterval - fifth / 2 + jitter);
  }
  scope_.postAfter(delay, [this, number] { lookAgain(number); });
}

void FoldersInUse::lookAgain(ItemNumber number) {
  bool isUsed = false;
  {
    std::lock_guard lock(mutex_);
    Folder& folder = folders_[number];
    folder.isWatched = false;
    isUsed = isInUse(folder);
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
  watch(number);
}

}  // namespace kestrowan::replica::pull
