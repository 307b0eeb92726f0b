#include "replica/model/State.h"

#include <algorithm>
#include <utility>

#include "platform/base/Fatal.h"
#include "replica/model/ShownName.h"

namespace kestrowan::replica::model {

namespace {

thread_local std::uint64_t lookupsOfThread = 0;

void keep(std::set<ItemNumber>& set, ItemNumber number, bool isIn) {
  if (isIn) {
    set.insert(number);
  } else {
    set.erase(number);
  }
}

}  // namespace

State::State() {
  Item root(ItemNumber::root, Kind::folder);
  root.here_ = Here{};
  root.there_ = root.agreed_ = Shared<There>(There{});
  put(root);
}

std::uint64_t State::lookups() {
  return lookupsOfThread;
}

const Item* State::find(ItemNumber number) const {
  ++lookupsOfThread;
  return items_.find(number);
}

const Item& State::item(ItemNumber number) const {
  const Item* found = find(number);
  if (!found) fatalError("an item was asked for that the tree has not got");
  return *found;
}

Item& State::changeable(ItemNumber number) {
  Item* found = items_.find(number);
  if (!found) fatalError("an item was to be changed that the tree has not got");
  return *found;
}

const Item* State::hereAt(const Place& place) const {
  return here_.at(place.folder, place.name);
}

const Item* State::hereAt(ItemNumber folder, std::string_view name) const {
  return here_.at(folder, name);
}

const Item* State::thereAt(const Place& place) const {
  return there_.at(place.folder, place.name);
}

std::vector<const Item*> State::hereIn(ItemNumber folder) const {
  auto result = here_.in(folder);
  lookupsOfThread += result.size();
  return result;
}

std::vector<const Item*> State::thereIn(ItemNumber folder) const {
  auto result = there_.in(folder);
  lookupsOfThread += result.size();
  return result;
}

std::vector<const Item*> State::hereIn(ItemNumber folder, std::string_view behind,
                                       std::size_t most) const {
  auto result = here_.in(folder, behind, most);
  lookupsOfThread += result.size();
  return result;
}

std::vector<const Item*> State::thereIn(ItemNumber folder, std::string_view behind,
                                        std::size_t most) const {
  auto result = there_.in(folder, behind, most);
  lookupsOfThread += result.size();
  return result;
}

const Item* State::anyHereIn(ItemNumber folder) const {
  return here_.anyIn(folder);
}

const Item* State::anyThereIn(ItemNumber folder) const {
  return there_.anyIn(folder);
}

Path State::therePath(const Item& item) const {
  if (item.number() == ItemNumber::root) return Path();
  const Place& place = item.there()->place;
  return therePath(this->item(place.folder)).child(place.name);
}

NSFileProviderItemIdentifier State::identifier(const Item& item) const {
  if (item.number() == ItemNumber::root) {
    return std::string(NSFileProviderRootContainerItemIdentifier);
  }
  const There& there = *item.there();
  if (!there.identifier.empty() && !isShownName(there.identifier)) return there.identifier;
  const bool isAtTop = there.place.folder == ItemNumber::root;
  return (isAtTop ? std::string() : identifier(this->item(there.place.folder))) + '/' +
         std::string(shownName(there));
}

const Item* State::atPath(const Path& path) const {
  if (path.isRoot()) return &root();
  const Item* folder = atPath(path.folder());
  return folder ? there_.at(folder->number(), path.name()) : nullptr;
}

const Item* State::folderOf(const Path& path) const {
  const Item* folder = atPath(path.folder());
  return folder && folder->isFolder() ? folder : nullptr;
}

std::optional<Path> State::pathOf(const Place& place) const {
  const Item* folder = find(place.folder);
  if (!folder || !folder->there()) return std::nullopt;
  return therePath(*folder).child(place.name);
}

ItemNumber State::make(Kind kind) {
  const ItemNumber number = nextItem_;
  nextItem_ = ItemNumber{static_cast<std::uint64_t>(number) + 1};
  note(items_.add(Item(number, kind)));
  return number;
}

void State::setHere(Item& item, OptionalHere here) {
  if (item.here_) here_.remove(item);
  item.here_ = std::move(here);
  if (item.here_ && item.there_) item.here_.shareName(item.there()->place.name);
  if (item.here_ && !here_.add(item)) fatalError("an item was put where another one is here");
  note(item);
}

void State::setThere(Item& item, Shared<There> there) {
  if (item.there_) there_.remove(item);
  item.there_ = std::move(there);
  if (item.there_) {
    item.there_.share(item.agreed_);
    if (item.here_) item.here_.shareName(item.there()->place.name);
  }
  if (item.there_ && !there_.add(item)) {
    fatalError("an item was put where another one is at the provider");
  }
  note(item);
}

void State::setAgreed(Item& item, Shared<There> agreed) {
  item.agreed_ = std::move(agreed);
  item.agreed_.share(item.there_);
  note(item);
}

void State::setAfter(Item& item, std::vector<ItemNumber> after) {
  Item::Rest rest = item.rest();
  rest.after = std::move(after);
  item.setRest(std::move(rest));
  note(item);
}

void State::setAttributes(Item& item, Attributes attributes) {
  Item::Rest rest = item.rest();
  rest.attributes = std::move(attributes);
  item.setRest(std::move(rest));
  note(item);
}

/// Brings the lists of what is to be done up to date.
void State::note(const Item& item) {
  keep(unmerged_, item.number(), !item.isMerged());
  keep(pending_, item.number(), !item.isInStep());
  keep(following_, item.number(), !item.after().empty());
}

void State::take(ItemNumber number) {
  Item& item = changeable(number);
  if (item.here_) here_.remove(item);
  if (item.there_) there_.remove(item);
  unmerged_.erase(number);
  pending_.erase(number);
  following_.erase(number);
  items_.remove(number);
}

void State::put(const Item& item) {
  enter(items_.add(item));
}

/// Into the indices.
void State::enter(const Item& item) {
  const bool isAlone = (!item.here_ || here_.add(item)) && (!item.there_ || there_.add(item));
  if (!isAlone) fatalError("an item was put back where another one is");
  note(item);
}

/// All of them, out of the indices.
void State::leavePlaces() {
  here_ = Places(Places::Side::here);
  there_ = Places(Places::Side::there);
  unmerged_.clear();
  pending_.clear();
  following_.clear();
}

}  // namespace kestrowan::replica::model
