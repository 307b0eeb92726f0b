#include "replica/plan/FreePlace.h"

#include <algorithm>

namespace kestrowan::replica::plan {

using model::Intent;
using model::Place;
using model::State;

namespace {

bool isAsked(const State& state, const Place& place) {
  const auto path = state.pathOf(place);
  if (!path) return false;
  const auto above = state.intents().atOrAbove(*path);
  return std::any_of(above.begin(), above.end(),
                     [&](const Intent* intent) { return intent->touches(*path); });
}

}  // namespace

Place freePlace(const State& state, const Place& place, const Names& names, NameForm form) {
  for (unsigned number = 1;; ++number) {
    Place other{place.folder, (names.*form)(place.name, number)};
    if (!state.hereAt(other) && !state.thereAt(other) && !isAsked(state, other)) return other;
  }
}

}  // namespace kestrowan::replica::plan
