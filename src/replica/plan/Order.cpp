#include "replica/plan/Order.h"

#include <algorithm>
#include <vector>

#include "replica/plan/FreePlace.h"
#include "replica/plan/Landing.h"
#include "replica/plan/Merge.h"

namespace kestrowan::replica::plan {

using model::Content;
using model::Item;
using model::ItemNumber;
using model::Place;
using model::State;

namespace {

enum class Why : std::uint8_t { after, child, folder, inside, place, take };

/// An item that must go first.
struct Blocker {
  ItemNumber item;
  Why why;
};

std::optional<Push> pushOf(const State& state, ItemNumber number, const Names& names) {
  const Item* item = state.find(number);
  if (!item) return std::nullopt;
  const Step step = merge(state, *item, names);
  const Push* push = std::get_if<Push>(&step);
  return push ? std::optional(*push) : std::nullopt;
}

/// Something that the item must be removed after, besides `except`.
std::optional<Blocker> afterBlocker(const State& state, const Item& item, const Names& names,
                                    ItemNumber except) {
  for (const ItemNumber other : item.after()) {
    if (other != except && pushOf(state, other, names)) return Blocker{other, Why::after};
  }
  return std::nullopt;
}

std::optional<Blocker> removalBlocker(const State& state, const Item& item, const Names& names) {
  if (const auto blocker = afterBlocker(state, item, names, ItemNumber::none)) return blocker;
  if (const Item* child = state.anyThereIn(item.number()))
    return Blocker{child->number(), Why::child};
  return std::nullopt;
}

std::optional<Blocker> insideBlocker(const State& state, const Item& item, const Item& folder,
                                     const Names& names) {
  std::vector<ItemNumber> way;
  const Item* up = &folder;
  while (up->number() != ItemNumber::root && up != &item) {
    way.push_back(up->number());
    up = &state.item(up->there()->place.folder);
  }
  if (up != &item) return std::nullopt;
  for (const ItemNumber number : way) {
    const auto push = pushOf(state, number, names);
    if (push && push->change == Change::move) return Blocker{number, Why::inside};
  }
  return std::nullopt;
}

std::optional<Blocker> placeBlocker(const State& state, const Item& item, const Place& place,
                                    const Names& names) {
  const Item* other = state.thereAt(place);
  if (!other || other == &item) return std::nullopt;
  const auto push = pushOf(state, other->number(), names);
  const bool isToGo = push && push->change == Change::remove;
  const bool canBeTaken = item.isFile() && other->isFile() && isToGo &&
                          !afterBlocker(state, *other, names, item.number());
  return Blocker{other->number(), canBeTaken ? Why::take : Why::place};
}

std::optional<Blocker> blockerOf(const State& state, const Push& push, const Names& names) {
  const Item& item = state.item(push.item);
  if (push.change == Change::contents) return std::nullopt;
  if (push.change == Change::remove) return removalBlocker(state, item, names);
  const Item& folder = state.item(push.place.folder);
  if (!folder.there()) return Blocker{folder.number(), Why::folder};
  if (const auto blocker = insideBlocker(state, item, folder, names)) return blocker;
  return placeBlocker(state, item, push.place, names);
}

/// One that requests in a ring wait for.
struct Link {
  ItemNumber from;
  Blocker blocker;
};

/// The choice does not depend on where the ring was entered.
Step breakRing(const State& state, const std::vector<Link>& ring, const Names& names) {
  std::optional<ItemNumber> first;
  for (const Link& link : ring) {
    if (link.blocker.why != Why::place) continue;
    first = std::min(first.value_or(link.blocker.item), link.blocker.item);
  }
  if (!first) return Stuck{ring.front().from};
  const Place& place = state.item(*first).there()->place;
  return Push{Change::move, *first, freePlace(state, place, names, &Names::third), Content::none};
}

/// What the item waits for in the end, or how the ring is broken that it waits for.
Step wait(const State& state, ItemNumber number, Blocker blocker, const Names& names) {
  std::vector<Link> way;
  while (true) {
    way.push_back({number, blocker});
    number = blocker.item;
    const auto seen =
        std::find_if(way.begin(), way.end(), [&](const Link& link) { return link.from == number; });
    if (seen != way.end()) {
      return breakRing(state, std::vector<Link>(seen, way.end()), names);
    }
    const auto push = pushOf(state, number, names);
    if (!push) return Stuck{number};
    const auto next = blockerOf(state, *push, names);
    if (!next || next->why == Why::take) return WaitFor{number};
    blocker = *next;
  }
}

/// A file at or below this item that is not on this disk, and that a program still sees.
bool holdsRemoteBytes(const State& state, const Item& item) {
  if (item.isFile()) return item.here() && item.here()->content == Content::none;
  const auto inside = state.thereIn(item.number());
  return std::any_of(inside.begin(), inside.end(),
                     [&](const Item* child) { return holdsRemoteBytes(state, *child); });
}

/// What protects what a move brings to where a late request of ours may destroy it.
std::optional<Step> protection(const State& state, const Push& push) {
  if (push.change != Change::move) return std::nullopt;
  const Item& item = state.item(push.item);
  const auto until = endangeredUntil(state, *state.pathOf(push.place));
  if (!until || !holdsRemoteBytes(state, item)) return std::nullopt;
  if (item.isFile()) return Fetch{item.number()};
  return WaitUntil{*until};
}

}  // namespace

Step order(const State& state, const Push& push, const Names& names) {
  const auto blocker = blockerOf(state, push, names);
  if (!blocker) return protection(state, push).value_or(push);
  if (blocker->why != Why::take) return wait(state, push.item, *blocker, names);
  const Item& item = state.item(push.item);
  if (item.here()->content == Content::none) return Fetch{item.number()};
  return Settle{Resolution::take, item.number(), blocker->item, {}};
}

}  // namespace kestrowan::replica::plan
