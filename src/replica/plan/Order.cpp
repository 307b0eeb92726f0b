#include "replica/plan/Order.h"

#include <algorithm>
#include <unordered_map>

#include "replica/plan/FreePlace.h"
#include "replica/plan/Landing.h"
#include "replica/plan/Merge.h"
#include "replica/plan/Surroundings.h"

namespace kestrowan::replica::plan {

using model::Content;
using model::Intent;
using model::Item;
using model::ItemNumber;
using model::Path;
using model::Place;
using model::State;

/// What the item needs by its own states and the requests around it.
Step Order::ownStep(ItemNumber number) const {
  const Item* item = state_.find(number);
  if (!item) return Nothing{};
  if (auto open = openAround(state_, *item, now_)) return *open;
  Step step = merge(state_, *item, names_);
  const Settle* settling = std::get_if<Settle>(&step);
  if (!settling) return step;
  for (const ItemNumber other : {settling->item, settling->other}) {
    const Item* involved = other == number ? nullptr : state_.find(other);
    if (!involved) continue;
    if (auto open = openAround(state_, *involved, now_)) return *open;
  }
  return step;
}

/// What was found where a request of ours without an answer may have brought this item.
std::optional<Order::Blocker> Order::effectBlocker(const Item& item) const {
  for (const Intent* intent : state_.intents().of(item.number())) {
    for (const Path& path : intent->paths()) {
      const Item* found = state_.atPath(path);
      if (found && found != &item && !found->isMerged()) {
        return Blocker{found->number(), Why::effect};
      }
    }
  }
  return std::nullopt;
}

/// Something that the item must be removed after, besides `except`.
std::optional<Order::Blocker> Order::afterBlocker(const Item& item, ItemNumber except) const {
  for (const ItemNumber other : item.after()) {
    if (other == except || std::holds_alternative<Nothing>(ownStep(other))) continue;
    return Blocker{other, Why::after};
  }
  return std::nullopt;
}

std::optional<Order::Blocker> Order::removalBlocker(const Item& item) const {
  if (const auto blocker = afterBlocker(item, ItemNumber::none)) return blocker;
  if (const Item* child = state_.anyThereIn(item.number()))
    return Blocker{child->number(), Why::child};
  return std::nullopt;
}

std::optional<Order::Blocker> Order::insideBlocker(const Item& item, const Item& folder) const {
  std::optional<ItemNumber> leaving;
  const Item* up = &folder;
  while (up->number() != ItemNumber::root && up != &item) {
    const bool isToMove = up->here() && up->here()->place != up->there()->place;
    if (isToMove && !leaving) leaving = up->number();
    up = &state_.item(up->there()->place.folder);
  }
  if (up != &item || !leaving) return std::nullopt;
  return Blocker{*leaving, Why::inside};
}

std::optional<Order::Blocker> Order::placeBlocker(const Item& item, const Place& place) const {
  const Item* other = state_.thereAt(place);
  if (!other || other == &item) return std::nullopt;
  const Step step = ownStep(other->number());
  const Push* push = std::get_if<Push>(&step);
  const bool isToGo = push && push->change == Change::remove;
  const bool canBeTaken =
      item.isFile() && other->isFile() && isToGo && !afterBlocker(*other, item.number());
  return Blocker{other->number(), canBeTaken ? Why::take : Why::place};
}

std::optional<Order::Blocker> Order::blockerOf(const Step& step) const {
  if (const auto* other = std::get_if<WaitFor>(&step)) return Blocker{other->item, Why::merge};
  const Push* push = std::get_if<Push>(&step);
  if (!push) return std::nullopt;
  const Item& item = state_.item(push->item);
  if (const auto blocker = effectBlocker(item)) return blocker;
  if (push->change == Change::contents) return std::nullopt;
  if (push->change == Change::remove) return removalBlocker(item);
  const Item& folder = state_.item(push->place.folder);
  if (!folder.there()) return Blocker{folder.number(), Why::folder};
  if (const auto blocker = insideBlocker(item, folder)) return blocker;
  return placeBlocker(item, push->place);
}

/// The choice does not depend on where the ring was entered.
Step Order::breakRing(const std::vector<Link>& ring) const {
  std::optional<ItemNumber> first;
  for (const Link& link : ring) {
    if (link.blocker.why != Why::place) continue;
    first = std::min(first.value_or(link.blocker.item), link.blocker.item);
  }
  if (!first) return Stuck{ring.front().from};
  const Place& place = state_.item(*first).there()->place;
  return Push{Change::move, *first, freePlace(state_, place, names_, &Names::third), Content::none};
}

/// What the item waits for in the end, or how the ring is broken that it waits for.
Step Order::wait(ItemNumber number, Blocker blocker) const {
  std::vector<Link> way;
  std::unordered_map<ItemNumber, std::size_t> seen;
  while (true) {
    seen.emplace(number, way.size());
    way.push_back({number, blocker});
    number = blocker.item;
    const auto before = seen.find(number);
    if (before != seen.end()) {
      const auto begin = way.begin() + static_cast<std::ptrdiff_t>(before->second);
      return breakRing(std::vector<Link>(begin, way.end()));
    }
    const Step step = ownStep(number);
    if (std::holds_alternative<Nothing>(step)) return Stuck{number};
    const auto next = blockerOf(step);
    if (!next || next->why == Why::take) return WaitFor{number};
    blocker = *next;
  }
}

/// What protects what a move brings to where a late request of ours may destroy it.
std::optional<Step> Order::protection(const Push& push) const {
  if (push.change != Change::move) return std::nullopt;
  const auto until = endangeredUntil(state_, *state_.pathOf(push.place));
  if (!until) return std::nullopt;
  const Item& item = state_.item(push.item);
  // Others may have put something into it that is not known here.
  if (item.isFolder()) return WaitUntil{*until};
  if (item.here() && item.here()->content == Content::none) return Fetch{item.number()};
  return std::nullopt;
}

Step Order::next(ItemNumber number) const {
  Step step = ownStep(number);
  const auto blocker = blockerOf(step);
  if (blocker && blocker->why != Why::take) return wait(number, *blocker);
  const Push* push = std::get_if<Push>(&step);
  if (!push) return step;
  if (!blocker) return protection(*push).value_or(step);
  const Item& item = state_.item(number);
  if (item.here()->content == Content::none) return Fetch{number};
  return Settle{Resolution::take, number, blocker->item, {}};
}

}  // namespace kestrowan::replica::plan
