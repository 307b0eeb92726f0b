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
  const auto path = state.pathOf(place);
  return std::any_of(
      state.intents().all().begin(), state.intents().all().end(), [&](const Intent& intent) {
        const bool concerns = intent.item == item.number() || intent.target == path;
        const bool overwrites =
            intent.verb == Verb::put && concerns && intent.content != item.here()->content;
        const bool removes =
            intent.verb == Verb::remove && path && path->isAtOrBelow(*intent.source);
        return overwrites || removes;
      });
}

std::optional<Time> endangeredUntil(const State& state, const Path& path) {
  std::optional<Time> result;
  for (const Intent& intent : state.intents().all()) {
    const bool removes = intent.verb == Verb::remove && path.isAtOrBelow(*intent.source);
    const bool overwrites = intent.verb == Verb::put && *intent.target == path;
    if (removes || overwrites) result = std::max(result, std::optional(intent.until));
  }
  return result;
}

}  // namespace kestrowan::replica::plan
