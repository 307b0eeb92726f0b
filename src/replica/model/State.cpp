#include "replica/model/State.h"

#include <algorithm>
#include <utility>

#include "platform/base/Fatal.h"

namespace kestrowan::replica::model {

namespace {

void keep(std::set<ItemNumber>& set, ItemNumber number, bool isIn) {
  if (isIn) {
    set.insert(number);
  } else {
    set.erase(number);
  }
}

template <class Index>
const Item* at(const Index& index, const Place& place) {
  const auto found = index.find(place);
  return found == index.end() ? nullptr : *found;
}

template <class Index, class PlaceOf>
std::vector<const Item*> in(const Index& index, ItemNumber folder, PlaceOf placeOf) {
  std::vector<const Item*> result;
  for (auto next = index.lower_bound(Place{folder, {}}); next != index.end(); ++next) {
    if (placeOf(**next).folder != folder) break;
    result.push_back(*next);
  }
  return result;
}

template <class Index, class PlaceOf>
const Item* anyIn(const Index& index, ItemNumber folder, PlaceOf placeOf) {
  const auto next = index.lower_bound(Place{folder, {}});
  return next != index.end() && placeOf(**next).folder == folder ? *next : nullptr;
}

const Place& herePlace(const Item& item) {
  return item.here()->place;
}

const Place& therePlace(const Item& item) {
  return item.there()->place;
}

}  // namespace

State::State() {
  Item root(ItemNumber::root, Kind::folder);
  root.here_ = Here{};
  root.there_ = root.agreed_ = There{};
  put(root);
}

const Item* State::find(ItemNumber number) const {
  const auto found = items_.find(number);
  return found == items_.end() ? nullptr : &found->second;
}

const Item& State::item(ItemNumber number) const {
  const Item* found = find(number);
  if (!found) fatalError("an item was asked for that the tree has not got");
  return *found;
}

Item& State::changeable(ItemNumber number) {
  return const_cast<Item&>(item(number));
}

const Item* State::hereAt(const Place& place) const {
  return at(here_, place);
}

const Item* State::thereAt(const Place& place) const {
  return at(there_, place);
}

std::vector<const Item*> State::hereIn(ItemNumber folder) const {
  return in(here_, folder, herePlace);
}

std::vector<const Item*> State::thereIn(ItemNumber folder) const {
  return in(there_, folder, therePlace);
}

const Item* State::anyHereIn(ItemNumber folder) const {
  return anyIn(here_, folder, herePlace);
}

const Item* State::anyThereIn(ItemNumber folder) const {
  return anyIn(there_, folder, therePlace);
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
  if (!item.there()->identifier.empty()) return item.there()->identifier;
  const Place& place = item.there()->place;
  const bool isAtTop = place.folder == ItemNumber::root;
  return (isAtTop ? std::string() : identifier(this->item(place.folder))) + '/' + place.name;
}

const Item* State::atPath(const Path& path) const {
  if (path.isRoot()) return &root();
  const Item* folder = atPath(path.folder());
  return folder ? thereAt({folder->number(), std::string(path.name())}) : nullptr;
}

std::optional<Path> State::pathOf(const Place& place) const {
  const Item* folder = find(place.folder);
  if (!folder || !folder->there()) return std::nullopt;
  return therePath(*folder).child(place.name);
}

ItemNumber State::make(Kind kind) {
  const ItemNumber number = nextItem_;
  nextItem_ = ItemNumber{static_cast<std::uint64_t>(number) + 1};
  note(items_.emplace(number, Item(number, kind)).first->second);
  return number;
}

void State::setHere(Item& item, std::optional<Here> here) {
  if (item.here_) here_.erase(&item);
  item.here_ = std::move(here);
  if (item.here_ && !here_.insert(&item).second) {
    fatalError("an item was put where another one is here");
  }
  note(item);
}

void State::setThere(Item& item, std::optional<There> there) {
  if (item.there_) there_.erase(&item);
  item.there_ = std::move(there);
  if (item.there_ && !there_.insert(&item).second) {
    fatalError("an item was put where another one is at the provider");
  }
  note(item);
}

void State::setAgreed(Item& item, std::optional<There> agreed) {
  item.agreed_ = std::move(agreed);
  note(item);
}

void State::setAfter(Item& item, std::vector<ItemNumber> after) {
  item.after_ = std::move(after);
  note(item);
}

void State::setAttributes(Item& item, Attributes attributes) {
  if (attributes == Attributes{}) {
    item.attributes_.reset();
  } else {
    item.attributes_ = std::move(attributes);
  }
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
  if (item.here_) here_.erase(&item);
  if (item.there_) there_.erase(&item);
  unmerged_.erase(number);
  pending_.erase(number);
  following_.erase(number);
  items_.erase(number);
}

void State::put(const Item& item) {
  Item& put = items_.emplace(item.number(), item).first->second;
  const bool isAlone =
      (!put.here_ || here_.insert(&put).second) && (!put.there_ || there_.insert(&put).second);
  if (!isAlone) fatalError("an item was put back where another one is");
  note(put);
}

}  // namespace kestrowan::replica::model
