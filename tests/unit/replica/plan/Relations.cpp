#include "unit/replica/plan/Relations.h"

#include <algorithm>

#include "unit/replica/plan/WorldEvents.h"

namespace kestrowan::test {

namespace {

Path herePath(const State& state, const Item& item) {
  if (item.number() == ItemNumber::root) return {};
  const Place& place = item.here()->place;
  return herePath(state, state.item(place.folder)).child(place.name);
}

std::vector<Path> pathsOf(const State& state, const Item& item) {
  std::vector<Path> paths;
  const auto add = [&](const Place& place) {
    if (const auto path = state.pathOf(place)) paths.push_back(*path);
  };
  if (item.here()) {
    paths.push_back(herePath(state, item));
    add(item.here()->place);
  }
  if (item.there()) add(item.there()->place);
  if (item.agreed()) add(item.agreed()->place);
  return paths;
}

}  // namespace

Relations::Relations(const State& state) {
  for (const Item* item : allItems(state)) {
    if (item->number() == ItemNumber::root) continue;
    things_.push_back({item->number(), {}, pathsOf(state, *item), item->after(), false});
  }
  for (const Intent& intent : state.intents().all()) {
    things_.push_back({intent.item, intent.number, intent.paths(), {}, false});
  }
}

bool Relations::areRelated(const Thing& a, const Thing& b) {
  if (a.item == b.item && a.item != ItemNumber::none) return true;
  const auto comesAfter = [](const Thing& one, const Thing& other) {
    return std::find(one.after.begin(), one.after.end(), other.item) != one.after.end();
  };
  if (comesAfter(a, b) || comesAfter(b, a)) return true;
  return std::any_of(a.paths.begin(), a.paths.end(), [&](const Path& path) {
    return std::any_of(b.paths.begin(), b.paths.end(), [&](const Path& other) {
      return path.isAtOrBelow(other) || other.isAtOrBelow(path);
    });
  });
}

void Relations::add(std::size_t index) {
  if (things_[index].isIn) return;
  things_[index].isIn = true;
  for (std::size_t i = 0; i < things_.size(); ++i) {
    if (!things_[i].isIn && areRelated(things_[index], things_[i])) add(i);
  }
}

void Relations::addItem(ItemNumber number) {
  for (std::size_t i = 0; i < things_.size(); ++i) {
    if (things_[i].item == number) add(i);
  }
}

void Relations::addIntent(IntentNumber number) {
  for (std::size_t i = 0; i < things_.size(); ++i) {
    if (things_[i].intent == number) add(i);
  }
}

bool Relations::contains(ItemNumber number) const {
  return std::any_of(things_.begin(), things_.end(),
                     [&](const Thing& thing) { return thing.item == number && thing.isIn; });
}

}  // namespace kestrowan::test
