#include <vector>

#include "replica/Sender.h"

namespace kestrowan::replica {

/// What has to end before the item's request may begin: an item that is being sent or will be. Null
/// when nothing has.
ItemPtr Sender::blocker(const ItemPtr& item) const {
  const ItemTable& table = core_.table;
  // A folder's request excludes every other at and below its places, before and after.
  for (const ItemPtr& other : core_.sending) {
    if (other == item) continue;
    if (other->sync->wholeFolder &&
        (table.isWithin(*item, other->rid) || table.isWithinAtProvider(*item, other->rid))) {
      return other;
    }
    if (item->isFolder() && item->base &&
        (table.isWithin(*other, item->rid) || table.isWithinAtProvider(*other, item->rid))) {
      return other;
    }
    const bool samePlace =
        (other->sync->targetParent == item->parent && other->sync->targetName == item->name) ||
        (other->base && other->base->parent == item->parent && other->base->name == item->name);
    if (samePlace) return other;
  }
  // What became of a request comes before the next one.
  if (item->sent) return nullptr;
  if (item->after != 0) {
    const ItemPtr first = table.find(item->after);
    if (first && !first->gone && (first->mustSendContents() || first->mustCreate())) return first;
  }
  return item->removed ? removalBlocker(item) : placeBlocker(item);
}

/// What keeps an item from being put into its place.
ItemPtr Sender::placeBlocker(const ItemPtr& item) const {
  const ItemTable& table = core_.table;
  const ItemPtr parent = table.find(item->parent);
  if (!parent) return nullptr;
  if (parent->mustCreate()) return parent;
  if (item->mustCreate() || item->mustMove()) {
    if (const ItemPtr before = core_.unsettledAt(item->parent, item->name)) return before;
    const ItemPtr holder = table.serverChild(item->parent, item->name);
    if (holder && holder != item && holder->isPending() && !isInCycle(item)) return holder;
  }
  if (item->isFolder() && item->mustMove()) {
    // The new parent may still lie below the item itself at the provider.
    for (ItemPtr at = parent; at && at->rid != kRootRid && at->base;
         at = table.find(at->base->parent)) {
      if (table.isWithinAtProvider(*at, item->rid) && at->isPending()) return at;
    }
  }
  return nullptr;
}

/// What keeps an item from being removed at the provider.
ItemPtr Sender::removalBlocker(const ItemPtr& item) const {
  const ItemTable& table = core_.table;
  if (!item->base) return nullptr;
  // It goes with the folder that it lies in.
  if (const ItemPtr parent = table.find(item->base->parent); parent && parent->mustRemove()) {
    return parent;
  }
  for (const ItemPtr& each : core_.unsettled) {
    const ItemPtr folder = each->sent && !each->gone ? table.find(each->sent->parent) : nullptr;
    if (folder && item->isFolder() && table.isWithinAtProvider(*folder, item->rid)) return each;
  }
  std::vector<ItemPtr> below =
      item->isFolder() ? table.serverChildren(item->rid) : std::vector<ItemPtr>();
  while (!below.empty()) {
    const ItemPtr child = below.back();
    below.pop_back();
    // It has moved out, and must not be removed with the folder.
    if (!child->removed) {
      if (child->isPending()) return child;
      continue;
    }
    const auto further = table.serverChildren(child->rid);
    below.insert(below.end(), further.begin(), further.end());
  }
  return nullptr;
}

/// Whether the items that hold each other's places at the provider form a ring with this one.
bool Sender::isInCycle(const ItemPtr& item) const {
  if (!item->mustMove()) return false;
  ItemPtr at = item;
  for (std::size_t steps = 0; steps < core_.table.size(); ++steps) {
    const ItemPtr holder = core_.table.serverChild(at->parent, at->name);
    if (!holder || holder == at || !holder->mustMove()) return false;
    if (holder == item) return true;
    at = holder;
  }
  return false;
}

}  // namespace kestrowan::replica
