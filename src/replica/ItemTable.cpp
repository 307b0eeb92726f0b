#include "replica/ItemTable.h"

#include <algorithm>
#include <utility>

#include "platform/foundation/NSString.h"

namespace kestrowan::replica {

namespace {

bool isASCII(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

}  // namespace

ItemPtr ItemTable::find(Rid rid) const {
  const auto found = byRid_.find(rid);
  return found == byRid_.end() ? nullptr : *found;
}

template <typename AnyIndex>
ItemPtr ItemTable::find(const AnyIndex& index, Rid folder, std::string_view name) const {
  const auto children = index.find(folder);
  if (children == index.end()) return nullptr;
  const auto found = children->second.find(name);
  return found == children->second.end() ? nullptr : find((*found)->rid);
}

template <typename AnyIndex>
std::vector<ItemPtr> ItemTable::all(const AnyIndex& index, Rid folder) const {
  std::vector<ItemPtr> result;
  if (const auto found = index.find(folder); found != index.end()) {
    result.reserve(found->second.size());
    for (const Item* item : found->second) result.push_back(find(item->rid));
  }
  return result;
}

template <typename AnyIndex>
void ItemTable::put(AnyIndex& index, Rid folder, std::string_view name, const ItemPtr& item) {
  auto& children = index[folder];
  // The latest one in a place is the one that is found.
  if (const auto before = children.find(name); before != children.end()) children.erase(before);
  children.insert(item.get());
}

ItemPtr ItemTable::child(Rid folder, std::string_view name) const {
  return find(visible_, folder, name);
}

ItemPtr ItemTable::similarChild(Rid folder, std::string_view name) const {
  if (auto exact = child(folder, name)) return exact;
  if (isASCII(name) || !isValidUTF8(name)) return nullptr;
  const auto children = visible_.find(folder);
  if (children == visible_.end()) return nullptr;
  for (const Item* item : children->second) {
    if (!isASCII(item->name) && isEqualToString(item->name, name)) return find(item->rid);
  }
  return nullptr;
}

ItemPtr ItemTable::serverChild(Rid folder, std::string_view name) const {
  return find(atProvider_, folder, name);
}

std::vector<ItemPtr> ItemTable::children(Rid folder) const {
  return all(visible_, folder);
}

std::vector<ItemPtr> ItemTable::serverChildren(Rid folder) const {
  return all(atProvider_, folder);
}

bool ItemTable::hasChildren(Rid folder) const {
  const auto found = visible_.find(folder);
  return found != visible_.end() && !found->second.empty();
}

std::size_t ItemTable::serverChildCount(Rid folder) const {
  const auto found = atProvider_.find(folder);
  return found == atProvider_.end() ? 0 : found->second.size();
}

std::size_t ItemTable::folderCount(Rid folder) const {
  const auto found = folders_.find(folder);
  return found == folders_.end() ? 0 : found->second;
}

void ItemTable::forEach(const std::function<void(const ItemPtr&)>& use) const {
  ++visits_;
  for (const auto& item : byRid_) use(item);
}

void ItemTable::show(const ItemPtr& item) {
  if (item->rid == kRootRid || item->removed || item->gone) return;
  if (const ItemPtr before = child(item->parent, item->name)) hide(before);
  put(visible_, item->parent, item->name, item);
  if (item->isFolder()) ++folders_[item->parent];
}

/// Whether it was there.
template <typename AnyIndex>
bool ItemTable::remove(AnyIndex& index, Rid folder, std::string_view name, const ItemPtr& item) {
  const auto children = index.find(folder);
  if (children == index.end()) return false;
  const auto found = children->second.find(name);
  if (found == children->second.end() || *found != item.get()) return false;
  children->second.erase(found);
  if (children->second.empty()) index.erase(children);
  return true;
}

void ItemTable::hide(const ItemPtr& item) {
  if (!remove(visible_, item->parent, item->name, item) || !item->isFolder()) return;
  const auto count = folders_.find(item->parent);
  if (--count->second == 0) folders_.erase(count);
}

void ItemTable::add(const ItemPtr& item) {
  byRid_.insert(item);
  show(item);
  if (item->rid != kRootRid && item->base) {
    put(atProvider_, item->base->parent, item->base->name, item);
  }
}

void ItemTable::erase(const ItemPtr& item) {
  hide(item);
  if (item->base) remove(atProvider_, item->base->parent, item->base->name, item);
  const auto found = byRid_.find(item->rid);
  if (found == byRid_.end()) return;
  if (item->gone) --outside_;
  byRid_.erase(found);
}

void ItemTable::place(const ItemPtr& item, Rid parent, std::string name) {
  hide(item);
  item->parent = parent;
  item->name = std::move(name);
  show(item);
}

void ItemTable::setRemoved(const ItemPtr& item, bool removed) {
  hide(item);
  item->removed = removed;
  show(item);
}

void ItemTable::detach(const ItemPtr& item) {
  setBase(item, std::nullopt);
  hide(item);
  if (!std::exchange(item->gone, true)) ++outside_;
}

void ItemTable::setBase(const ItemPtr& item, std::optional<Base> base) {
  const bool indexed = item->rid != kRootRid && !item->gone;
  if (indexed && item->base) remove(atProvider_, item->base->parent, item->base->name, item);
  item->base = std::move(base);
  if (indexed && item->base) put(atProvider_, item->base->parent, item->base->name, item);
}

bool ItemTable::isWithin(const Item& item, Rid ancestor) const {
  const Item* at = &item;
  for (std::size_t steps = 0; steps <= byRid_.size(); ++steps) {
    if (at->rid == ancestor) return true;
    if (at->rid == kRootRid) return false;
    const auto above = byRid_.find(at->parent);
    if (above == byRid_.end()) return false;
    at = above->get();
  }
  return false;
}

bool ItemTable::isWithinAtProvider(const Item& item, Rid ancestor) const {
  const Item* at = &item;
  for (std::size_t steps = 0; steps <= byRid_.size(); ++steps) {
    if (at->rid == ancestor) return true;
    if (at->rid == kRootRid || !at->base) return false;
    const auto above = byRid_.find(at->base->parent);
    if (above == byRid_.end()) return false;
    at = above->get();
  }
  return false;
}

std::string ItemTable::path(const Item& item) const {
  if (item.rid == kRootRid) return "/";
  std::vector<std::string_view> names;
  const Item* at = &item;
  while (at->rid != kRootRid && names.size() <= byRid_.size()) {
    names.push_back(at->name);
    const auto above = byRid_.find(at->parent);
    if (above == byRid_.end()) break;
    at = above->get();
  }
  std::string result;
  for (auto name = names.rbegin(); name != names.rend(); ++name) {
    result += '/';
    result += *name;
  }
  return result;
}

}  // namespace kestrowan::replica
