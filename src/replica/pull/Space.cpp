#include "replica/pull/Space.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "platform/foundation/NSError.h"
#include "replica/model/View.h"

namespace kestrowan::replica::pull {

using model::Content;
using model::Edit;
using model::Here;
using model::Item;
using model::ItemNumber;
using model::There;
using model::Time;
using model::View;

namespace {

constexpr std::int64_t kGibibyte = std::int64_t{1} << 30;

}  // namespace

Space::Space(model::Tree& tree, const async::Loop& loop, const Options& options,
             store::Contents& contents, store::UnusedContents& unused, const Tally& tally,
             IsOpen isOpen)
    : tree_(tree),
      loop_(loop),
      options_(options),
      contents_(contents),
      unused_(unused),
      tally_(tally),
      isOpen_(std::move(isOpen)) {}

bool Space::isEvictable(const Item& file) const {
  return file.isFile() && file.here() && file.here()->content != Content::none && file.isInStep() &&
         file.there() && !file.attributes().pinned && !isOpen_(file.number());
}

std::int64_t Space::cacheLimit() const {
  if (options_.cacheLimit > 0) return options_.cacheLimit;
  return std::min(10 * kGibibyte, contents_.files().space().capacity / 10);
}

std::int64_t Space::freeSpaceFloor() const {
  if (options_.freeSpaceFloor > 0) return options_.freeSpaceFloor;
  return replica::freeSpaceFloor(contents_.files().space().capacity);
}

ContentNumber Space::evict(Edit& edit, ItemNumber number) {
  const Item& file = edit->item(number);
  const auto content = static_cast<ContentNumber>(file.here()->content);
  There there = *file.there();
  There agreed = *file.agreed();
  there.content = Content::none;
  agreed.content = Content::none;
  edit.setHere(number, Here{file.here()->place, Content::none});
  edit.setAgreed(number, std::move(agreed));
  edit.setThere(number, std::move(there));
  return content;
}

std::shared_ptr<void> Space::take(std::int64_t bytes) {
  std::lock_guard lock(mutex_);
  makeRoom(taken_ + bytes);
  return taken(bytes);
}

std::shared_ptr<void> Space::takeFree(std::int64_t bytes) {
  // Another thread may be giving back.
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (!lock) return nullptr;
  const std::int64_t needed = taken_ + bytes;
  return excess(needed, contents_.files().space().free) > 0 ? nullptr : taken(bytes);
}

/// Under the lock.
std::shared_ptr<void> Space::taken(std::int64_t bytes) {
  taken_ += bytes;
  return {this, [this, bytes](void*) { taken_ -= bytes; }};
}

void Space::noteUse(ItemNumber file) {
  std::lock_guard lock(usesMutex_);
  uses_[file] = Time(std::chrono::milliseconds(loop_.wallClock()));
}

void Space::keepLimits() {
  std::lock_guard lock(mutex_);
  makeRoom(0);
}

/// What could be given back, that which was used longest ago first.
std::vector<ItemNumber> Space::oldest() const {
  const Time youngest = Time(std::chrono::milliseconds(loop_.wallClock())) - options_.evictionAge;
  std::vector<std::pair<Time, ItemNumber>> found;
  const View view(tree_);
  for (const ItemNumber number : tally_.cachedFiles()) {
    const Item* file = view->find(number);
    if (!file || !isEvictable(*file)) continue;
    Time lastUse = file->attributes().lastUse.value_or(Time());
    {
      std::lock_guard lock(usesMutex_);
      const auto used = uses_.find(number);
      if (used != uses_.end()) lastUse = std::max(lastUse, used->second);
    }
    if (lastUse <= youngest) found.emplace_back(lastUse, number);
  }
  std::sort(found.begin(), found.end());
  std::vector<ItemNumber> result;
  for (const auto& [time, number] : found) result.push_back(number);
  return result;
}

/// What is to be given back, that `needed` can be had.
std::int64_t Space::excess(std::int64_t needed, std::int64_t free) const {
  return std::max(tally_.cachedBytes() + needed - cacheLimit(), needed + freeSpaceFloor() - free);
}

void Space::makeRoom(std::int64_t needed) {
  const std::int64_t free = contents_.files().space().free;
  // Giving up everything would not be enough.
  if (needed > 0 && free + tally_.cachedBytes() - needed < freeSpaceFloor()) {
    throw posixError(ENOSPC);
  }
  std::int64_t excess = this->excess(needed, free);
  if (excess > 0) {
    for (const ItemNumber number : oldest()) {
      if (excess <= 0) break;
      ContentNumber evicted = 0;
      {
        Edit edit(tree_);
        const Item* file = edit->find(number);
        if (!file || !isEvictable(*file)) continue;
        const auto content = static_cast<ContentNumber>(file->here()->content);
        excess -= contents_.files().sizeOfData(content).value_or(file->agreed()->size);
        evicted = evict(edit, number);
        edit.commit();
      }
      unused_.removeAtOnce({evicted});
    }
  }
  // The limit of the cache is a wish, the floor of the disk is none.
  if (needed > 0 && contents_.files().space().free - needed < freeSpaceFloor()) {
    throw posixError(ENOSPC);
  }
}

}  // namespace kestrowan::replica::pull
