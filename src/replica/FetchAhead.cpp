#include "replica/Fetcher.h"

namespace kestrowan::replica {

namespace {

/// Larger files are left until they are asked for.
constexpr std::int64_t kLargestAhead = 256 * 1024;
constexpr std::size_t kFilesAhead = 24;
constexpr std::int64_t kMostInFlight = 12;

bool canBeFetchedAhead(const Item& item) {
  return !item.isFolder() && item.content == 0 && item.base && item.size <= kLargestAhead;
}

}  // namespace

void Fetcher::walked(const ItemPtr& item) {
  std::lock_guard lock(core_.mutex);
  const ItemPtr folder = core_.table.find(item->parent);
  if (!folder || !health_.isUp()) return;
  Walk& walk = core_.folder(folder).fileWalk;
  if (!walk.goesTo(*item, item->content != 0, core_.milliseconds())) return;
  const auto children = [&] { return core_.table.children(folder->rid); };
  for (const Rid rid : walk.next(*item, kFilesAhead, children, canBeFetchedAhead)) {
    if (inFlight_ >= kMostInFlight) return;
    if (const ItemPtr next = core_.table.find(rid)) fetchLater(next);
  }
}

}  // namespace kestrowan::replica
