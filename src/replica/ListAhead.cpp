#include "replica/Lister.h"

namespace kestrowan::replica {

namespace {

constexpr std::size_t kFoldersAhead = 6;

bool canBeListedAhead(const Item& item) {
  return item.isFolder() && item.base && item.listedAt == 0;
}

}  // namespace

/// A program looks into the folder: the next ones beside it are listed before it comes to them.
void Lister::walked(const ItemPtr& folder) {
  const ItemPtr parent = core_.table.find(folder->parent);
  if (!parent) return;
  Walk& walk = core_.folder(parent).folderWalk;
  if (!walk.goesTo(*folder, isKnown(*folder), core_.milliseconds())) return;
  const auto children = [&] { return core_.table.children(parent->rid); };
  for (const Rid rid : walk.next(*folder, kFoldersAhead, children, canBeListedAhead)) {
    const ItemPtr next = core_.table.find(rid);
    if (next && !next->gone && canBeListedAhead(*next) && !core_.folder(next).listing) begin(next);
  }
}

}  // namespace kestrowan::replica
