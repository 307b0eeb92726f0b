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
  return found == byRid_.end() ? nullptr : found->second;
}

ItemPtr ItemTable::find(const Index& index, Rid folder, std::string_view name) {
  const auto children = index.find(folder);
  if (children == index.end()) return nullptr;
  const auto found = children->second.find(name);
  return found == children->second.end() ? nullptr : found->second;
}

ItemPtr ItemTable::child(Rid folder, std::string_view name) const {
  return find(visible_, folder, name);
}

ItemPtr ItemTable::similarChild(Rid folder, std::string_view name) const {
  if (auto exact = child(folder, name)) return exact;
  if (isASCII(name) || !isValidUTF8(name)) return nullptr;
  const auto children = visible_.find(folder);
  if (children == visible_.end()) return nullptr;
  for (const auto& [candidate, item] : children->second) {
    if (!isASCII(candidate) && isEqualToString(candidate, name)) return item;
  }
  return nullptr;
}

ItemPtr ItemTable::serverChild(Rid folder, std::string_view name) const {
  return find(atProvider_, folder, name);
}

std::vector<ItemPtr> ItemTable::children(Rid folder) const {
  std::vector<ItemPtr> result;
  if (const auto found = visible_.find(folder); found != visible_.end()) {
    result.reserve(found->second.size());
    for (const auto& entry : found->second) result.push_back(entry.second);
  }
  return result;
}

std::vector<ItemPtr> ItemTable::serverChildren(Rid folder) const {
  std::vector<ItemPtr> result;
  if (const auto found = atProvider_.find(folder); found != atProvider_.end()) {
    result.reserve(found->second.size());
    for (const auto& entry : found->second) result.push_back(entry.second);
  }
  return result;
}

bool ItemTable::hasChildren(Rid folder) const {
  const auto found = visible_.find(folder);
  return found != visible_.end() && !found->second.empty();
}

std::size_t ItemTable::serverChildCount(Rid folder) const {
  const auto found = atProvider_.find(folder);
  return found == atProvider_.end() ? 0 : found->second.size();
}

void ItemTable::forEach(const std::function<void(const ItemPtr&)>& use) const {
  for (const auto& entry : byRid_) use(entry.second);
}

void ItemTable::show(const ItemPtr& item) {
  if (item->rid != kRootRid && !item->removed && !item->gone) {
    visible_[item->parent][item->name] = item;
  }
}

void ItemTable::remove(Index& index, Rid folder, std::string_view name, const ItemPtr& item) {
  const auto children = index.find(folder);
  if (children == index.end()) return;
  const auto found = children->second.find(name);
  if (found == children->second.end() || found->second != item) return;
  children->second.erase(found);
  if (children->second.empty()) index.erase(children);
}

void ItemTable::hide(const ItemPtr& item) {
  remove(visible_, item->parent, item->name, item);
}

void ItemTable::add(const ItemPtr& item) {
  byRid_[item->rid] = item;
  show(item);
  if (item->rid != kRootRid && item->base) atProvider_[item->base->parent][item->base->name] = item;
}

void ItemTable::erase(const ItemPtr& item) {
  hide(item);
  if (item->base) remove(atProvider_, item->base->parent, item->base->name, item);
  byRid_.erase(item->rid);
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
  item->gone = true;
}

void ItemTable::setBase(const ItemPtr& item, std::optional<Base> base) {
  const bool indexed = item->rid != kRootRid && !item->gone;
  if (indexed && item->base) remove(atProvider_, item->base->parent, item->base->name, item);
  item->base = std::move(base);
  if (indexed && item->base) atProvider_[item->base->parent][item->base->name] = item;
}

bool ItemTable::isWithin(const Item& item, Rid ancestor) const {
  const Item* at = &item;
  for (std::size_t steps = 0; steps <= byRid_.size(); ++steps) {
    if (at->rid == ancestor) return true;
    if (at->rid == kRootRid) return false;
    const auto above = byRid_.find(at->parent);
    if (above == byRid_.end()) return false;
    at = above->second.get();
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
    at = above->second.get();
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
    at = above->second.get();
  }
  std::string result;
  for (auto name = names.rbegin(); name != names.rend(); ++name) {
    result += '/';
    result += *name;
  }
  return result;
}

}  // namespace kestrowan::replica
