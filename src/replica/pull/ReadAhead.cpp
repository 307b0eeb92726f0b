#include "replica/pull/ReadAhead.h"

#include <utility>

#include "replica/model/View.h"

namespace kestrowan::replica::pull {

using model::Content;
using model::Item;
using model::ItemNumber;
using model::State;
using model::View;

namespace {

/// Larger files are left until they are asked for.
constexpr std::int64_t kLargestAhead = 256 * 1024;
constexpr std::size_t kFilesAhead = 24;
constexpr std::int64_t kMostInFlight = 12;
constexpr std::size_t kFoldersAhead = 6;

bool canBeFetchedAhead(const Item& item) {
  return item.isFile() && item.here()->content == Content::none && item.there() &&
         item.there()->size <= kLargestAhead;
}

bool canBeListedAhead(const Item& item) {
  return item.isFolder() && !Freshness::isKnown(item);
}

/// What lies behind an item in its folder, in the order of the names.
Walk::Items behind(const State& state, const Item& item, bool (*isWanted)(const Item&)) {
  Walk::Items result;
  for (const Item* each : state.hereIn(item.here()->place.folder)) {
    if (each->here()->place.name > item.here()->place.name && isWanted(*each)) {
      result.push_back(each->number());
    }
  }
  return result;
}

}  // namespace

ReadAhead::ReadAhead(const model::Tree& tree, const async::Loop& loop, const remote::Health& health,
                     Downloader& downloader, Refresher& refresher,
                     const BackgroundFetches& background)
    : tree_(tree),
      loop_(loop),
      health_(health),
      downloader_(downloader),
      refresher_(refresher),
      background_(background) {}

void ReadAhead::noteOpened(ItemNumber file, const Caller* program) {
  if (!health_.isUp()) return;
  Walk::Items next;
  {
    const View view(tree_);
    const Item* item = view->find(file);
    if (!item || !item->here() || item->isFolder()) return;
    std::lock_guard lock(mutex_);
    Walk& walk = walks_[item->here()->place.folder].files;
    const bool isHere = item->here()->content != Content::none;
    if (!walk.goesTo(file, isHere, loop_.now())) return;
    next = walk.next(file, kFilesAhead, [&] { return behind(*view, *item, canBeFetchedAhead); });
  }
  if (next.empty() || !background_.mayLookAhead(program)) return;
  for (const ItemNumber each : next) {
    if (downloader_.inFlightUnread() >= kMostInFlight) return;
    downloader_.fetchSoon(each);
  }
}

void ReadAhead::noteListed(ItemNumber folder, const Caller* program) {
  if (!health_.isUp() || folder == ItemNumber::root) return;
  Walk::Items next;
  {
    const View view(tree_);
    const Item* item = view->find(folder);
    if (!item || !item->here()) return;
    std::lock_guard lock(mutex_);
    Walk& walk = walks_[item->here()->place.folder].folders;
    if (!walk.goesTo(folder, Freshness::isKnown(*item), loop_.now())) return;
    next = walk.next(folder, kFoldersAhead, [&] { return behind(*view, *item, canBeListedAhead); });
  }
  if (next.empty() || !background_.mayLookAhead(program)) return;
  for (const ItemNumber each : next) {
    {
      const View view(tree_);
      const Item* item = view->find(each);
      if (!item || !item->here() || !canBeListedAhead(*item)) continue;
    }
    refresher_.lookSoon(each);
  }
}

}  // namespace kestrowan::replica::pull
