#include "replica/plan/Landing.h"

#include <algorithm>

namespace kestrowan::replica::plan {

using model::Intent;
using model::Item;
using model::Path;
using model::Place;
using model::State;
using model::Time;
using model::Verb;

bool mayLand(const State& state, const Item& item, const Place& place) {
  const auto overwrites = [&](const Intent* intent) {
    return intent->verb == Verb::put && intent->content != item.here()->content;
  };
  const auto own = state.intents().of(item.number());
  if (std::any_of(own.begin(), own.end(), overwrites)) return true;
  const auto path = state.pathOf(place);
  if (!path) return false;
  const auto above = state.intents().atOrAbove(*path);
  return std::any_of(above.begin(), above.end(), [&](const Intent* intent) {
    const bool removes = intent->verb == Verb::remove;
    return removes || (intent->target == path && overwrites(intent));
  });
}

std::optional<Time> endangeredUntil(const State& state, const Path& path) {
  std::optional<Time> result;
  for (const Intent* intent : state.intents().atOrAbove(path)) {
    const bool overwrites = intent->verb == Verb::put && *intent->target == path;
    if (intent->over || (intent->verb != Verb::remove && !overwrites)) continue;
    result = std::max(result, std::optional(intent->until));
  }
  return result;
}

}  // namespace kestrowan::replica::plan
