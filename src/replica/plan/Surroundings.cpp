#include "replica/plan/Surroundings.h"

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "replica/plan/Uncertain.h"

namespace kestrowan::replica::plan {

using model::Intent;
using model::IntentNumber;
using model::Item;
using model::ItemNumber;
using model::Path;
using model::Place;
using model::State;
using model::Time;
using model::Verb;

namespace {

using Numbers = std::set<IntentNumber>;

void add(const std::vector<const Intent*>& intents, Numbers& numbers) {
  for (const Intent* intent : intents) numbers.insert(intent->number);
}

/// The places that an item has in its three states, as far as the provider has their folders.
std::vector<Path> pathsOf(const State& state, const Item& item) {
  std::vector<Path> paths;
  const auto add = [&](const Place& place) {
    const auto path = state.pathOf(place);
    const bool isNew = path && std::find(paths.begin(), paths.end(), *path) == paths.end();
    if (isNew) paths.push_back(*path);
  };
  if (item.here()) add(item.here()->place);
  if (item.there()) add(item.there()->place);
  if (item.agreed()) add(item.agreed()->place);
  return paths;
}

Numbers concerning(const State& state, const Item& item, const std::vector<Path>& paths) {
  Numbers numbers;
  add(state.intents().of(item.number()), numbers);
  for (const Path& path : paths) add(state.intents().around(path), numbers);
  return numbers;
}

/// True while it is under way, too.
bool mustBeLookedFor(const Intent& intent, Time now) {
  return !intent.looked || (intent.until <= now && !intent.over);
}

const Intent* underWayAround(const State& state, const Intent& intent) {
  if (intent.isUnderWay()) return &intent;
  for (const Path& path : intent.paths()) {
    if (const Intent* other = underWayAt(state, path)) return other;
  }
  return nullptr;
}

/// The folders of its paths, as far as the provider has them.
void addFolders(const State& state, const Intent& intent, std::vector<ItemNumber>& folders) {
  for (const Path& path : intent.paths()) {
    const Item* folder = state.folderOf(path);
    if (!folder) continue;
    const ItemNumber number = folder->number();
    if (std::find(folders.begin(), folders.end(), number) == folders.end()) {
      folders.push_back(number);
    }
  }
}

std::optional<Step> openOf(const State& state, const Numbers& numbers, Time now) {
  std::vector<const Intent*> toLookFor;
  for (const IntentNumber number : numbers) {
    const Intent& intent = *state.intents().find(number);
    if (mustBeLookedFor(intent, now)) toLookFor.push_back(&intent);
  }
  if (toLookFor.empty()) return std::nullopt;
  Look look;
  for (const Intent* intent : toLookFor) {
    if (const Intent* other = underWayAround(state, *intent)) return WaitForAnswer{other->number};
    addFolders(state, *intent, look.folders);
  }
  return look;
}

std::optional<ItemNumber> unmergedBelow(const State& state, const Item& item) {
  if (!item.isMerged()) return item.number();
  for (const Item* child : state.thereIn(item.number())) {
    if (const auto found = unmergedBelow(state, *child)) return found;
  }
  return std::nullopt;
}

}  // namespace

std::optional<Step> openAround(const State& state, const Item& item, Time now) {
  if (state.intents().all().empty()) return std::nullopt;
  const auto paths = pathsOf(state, item);
  for (const Path& path : paths) {
    if (const Intent* other = underWayAt(state, path)) return WaitForAnswer{other->number};
  }
  return openOf(state, concerning(state, item, paths), now);
}

std::optional<Step> openIntent(const State& state, const Intent& intent, Time now) {
  return openOf(state, {intent.number}, now);
}

std::optional<ItemNumber> unmergedAround(const State& state, const Intent& intent) {
  const Item* own = state.find(intent.item);
  if (own && !own->isMerged()) return own->number();
  for (const Path& path : intent.paths()) {
    const Item* folder = state.folderOf(path);
    if (!folder) continue;
    const Place place{folder->number(), std::string(path.name())};
    for (const Item* item : {state.thereAt(place), state.hereAt(place)}) {
      if (item && !item->isMerged()) return item->number();
    }
    const Item* there = state.thereAt(place);
    if (!there || intent.verb != Verb::remove) continue;
    if (const auto found = unmergedBelow(state, *there)) return found;
  }
  return std::nullopt;
}

}  // namespace kestrowan::replica::plan
