#include "unit/replica/plan/WorldEvents.h"

#include <algorithm>
#include <set>
#include <sstream>
#include <utility>

namespace kestrowan::test {

namespace {

unsigned depthHere(const State& state, const Item& item) {
  unsigned depth = 0;
  const Item* up = &item;
  for (; up->number() != ItemNumber::root; up = &state.item(up->here()->place.folder)) ++depth;
  return depth;
}

bool isInside(const State& state, const Item& item, const Item& folder) {
  const Item* up = &item;
  while (up != &folder) {
    if (up->number() == ItemNumber::root) return false;
    up = &state.item(up->here()->place.folder);
  }
  return true;
}

/// A client that writes the bytes of a request without an answer cannot be told from the request.
bool isAsked(const State& state, Content content) {
  return std::any_of(state.intents().all().begin(), state.intents().all().end(),
                     [&](const Intent& intent) { return intent.content == content; });
}

}  // namespace

Event Event::here(Kind kind, Place place) {
  Event event;
  event.kind = kind;
  event.place = std::move(place);
  return event;
}

Event Event::here(Kind kind, ItemNumber item, Place place) {
  Event event = here(kind, std::move(place));
  event.item = item;
  return event;
}

Event Event::here(Kind kind, ItemNumber item, ItemNumber other) {
  Event event = here(kind, Place{});
  event.item = item;
  event.other = other;
  return event;
}

Event Event::there(Kind kind, Path source, Path target) {
  Event event;
  event.kind = kind;
  event.source = std::move(source);
  event.target = std::move(target);
  return event;
}

Event Event::same(ItemNumber item, Path target) {
  Event event = there(Kind::putSameThere, {}, std::move(target));
  event.item = item;
  return event;
}

std::string Event::text() const {
  constexpr const char* kWords[] = {"make",         "make folder", "write",  "move",
                                    "replace",      "swap",        "remove", "put",
                                    "put the same", "make folder", "move",   "remove"};
  std::ostringstream out;
  out << (isHere() ? "HERE  " : "THERE ") << kWords[static_cast<unsigned>(kind)];
  if (item != ItemNumber::none) out << " item " << static_cast<unsigned>(item);
  if (other != ItemNumber::none) out << " with " << static_cast<unsigned>(other);
  if (!place.name.empty()) {
    out << " to " << static_cast<unsigned>(place.folder) << "/\"" << place.name << "\"";
  }
  if (!source.isRoot()) out << " \"" << source.text() << "\"";
  if (!target.isRoot()) out << " -> \"" << target.text() << "\"";
  return out.str();
}

/// What is seen here, folders before what is in them; then what is there; then what is nowhere.
std::vector<const Item*> allItems(const State& state, const Renaming& renaming) {
  const auto sorted = [&](std::vector<const Item*> inside, const auto& nameOf) {
    if (renaming.isNone()) return inside;
    std::sort(inside.begin(), inside.end(), [&](const Item* a, const Item* b) {
      return renaming(nameOf(*a)) < renaming(nameOf(*b));
    });
    return inside;
  };
  std::vector<const Item*> items{&state.root()};
  for (std::size_t i = 0; i < items.size(); ++i) {
    const auto inside = sorted(
        state.hereIn(items[i]->number()),
        [](const Item& item) -> const auto& { return item.here()->place.name; });
    items.insert(items.end(), inside.begin(), inside.end());
  }
  std::vector<const Item*> folders{&state.root()};
  const auto add = [&](const Item* item) {
    if (std::find(items.begin(), items.end(), item) == items.end()) items.push_back(item);
  };
  for (std::size_t i = 0; i < folders.size(); ++i) {
    const auto inside = sorted(
        state.thereIn(folders[i]->number()),
        [](const Item& item) -> const auto& { return item.there()->place.name; });
    for (const Item* item : inside) {
      add(item);
      if (item->isFolder()) folders.push_back(item);
    }
  }
  for (const ItemNumber number : state.pending()) add(&state.item(number));
  return items;
}

/// Those that something may get. Names that nothing has are all alike, so there is one of them.
std::vector<std::string> WorldEvents::newNames() const {
  std::set<std::string> used;
  for (const auto& [path, entry] : provider_.tree) {
    if (!path.isRoot()) used.insert(std::string(path.name()));
  }
  for (const Intent& intent : state_.intents().all()) {
    for (const Path& path : intent.paths()) used.insert(std::string(path.name()));
  }
  for (const Item* item : allItems(state_)) {
    if (item->here()) used.insert(item->here()->place.name);
    if (item->there()) used.insert(item->there()->place.name);
    if (item->agreed()) used.insert(item->agreed()->place.name);
  }
  std::vector<std::string> result = names_;
  bool hasFresh = false;
  std::erase_if(result, [&](const std::string& name) {
    if (used.contains(name)) return false;
    return std::exchange(hasFresh, true);
  });
  return result;
}

/// Where something may be made or moved to.
std::vector<Place> WorldEvents::freePlaces(const std::vector<const Item*>& seen) const {
  const auto free = newNames();
  std::vector<Place> places;
  for (const Item* folder : seen) {
    if (folder->isFile() || depthHere(state_, *folder) > 2) continue;
    for (const std::string& name : free) {
      const Place place{folder->number(), name};
      if (!state_.hereAt(place)) places.push_back(place);
    }
  }
  return places;
}

std::vector<Event> WorldEvents::here() const {
  std::vector<Event> events;
  std::vector<const Item*> seen{&state_.root()};
  for (std::size_t i = 0; i < seen.size(); ++i) {
    for (const Item* item : state_.hereIn(seen[i]->number())) seen.push_back(item);
  }
  const auto places = freePlaces(seen);
  for (const Place& place : places) {
    events.push_back(Event::here(Event::Kind::make, place));
    events.push_back(Event::here(Event::Kind::makeFolder, place));
  }
  for (const Item* item : seen) {
    if (item->number() == ItemNumber::root) continue;
    for (const Place& place : places) {
      if (isInside(state_, state_.item(place.folder), *item)) continue;
      events.push_back(Event::here(Event::Kind::move, item->number(), place));
    }
    if (item->isFile()) events.push_back(Event::here(Event::Kind::write, item->number()));
    if (!state_.anyHereIn(item->number())) {
      events.push_back(Event::here(Event::Kind::remove, item->number()));
    }
    for (const Item* other : seen) {
      if (other->number() == ItemNumber::root || other == item) continue;
      if (isInside(state_, *other, *item)) continue;
      const bool isEmpty = !state_.anyHereIn(other->number());
      if (item->kind() == other->kind() && isEmpty) {
        events.push_back(Event::here(Event::Kind::replace, item->number(), other->number()));
      }
      if (item->number() < other->number() && !isInside(state_, *item, *other)) {
        events.push_back(Event::here(Event::Kind::swap, item->number(), other->number()));
      }
    }
  }
  return events;
}

/// The same new file is made on both sides.
void WorldEvents::addSame(const std::vector<Path>& free, std::vector<Event>& events) const {
  for (const Path& path : free) {
    const Item* folder = state_.atPath(path.folder());
    if (!folder || !folder->here()) continue;
    const Item* item = state_.hereAt({folder->number(), std::string(path.name())});
    const bool isOurs =
        item && item->isFile() && !item->there() && item->here()->content != Content::none;
    if (isOurs) {
      events.push_back(Event::same(item->number(), path));
    }
  }
}

std::vector<Event> WorldEvents::there() const {
  std::vector<Event> events;
  std::vector<Path> free;
  const auto names = newNames();
  for (const auto& [path, entry] : provider_.tree) {
    const bool isDeep = !path.isRoot() && !path.folder().isRoot();
    if (entry.kind == Kind::file || isDeep) continue;
    for (const std::string& name : names) {
      if (!provider_.at(path.child(name))) free.push_back(path.child(name));
    }
  }
  for (const Path& path : free) {
    events.push_back(Event::there(Event::Kind::putThere, {}, path));
    events.push_back(Event::there(Event::Kind::makeFolderThere, {}, path));
  }
  for (const auto& [path, entry] : provider_.tree) {
    if (path.isRoot()) continue;
    events.push_back(Event::there(Event::Kind::removeThere, path, {}));
    for (const Path& target : free) {
      if (target.isAtOrBelow(path)) continue;
      events.push_back(Event::there(Event::Kind::moveThere, path, target));
    }
    if (entry.kind == Kind::folder) continue;
    events.push_back(Event::there(Event::Kind::putThere, {}, path));
    const Item* item = state_.atPath(path);
    const bool isOurs = item && item->here() && item->here()->content != Content::none &&
                        item->here()->content != entry.content &&
                        !isAsked(state_, item->here()->content);
    if (isOurs) {
      events.push_back(Event::same(item->number(), path));
    }
  }
  addSame(free, events);
  return events;
}

}  // namespace kestrowan::test
