#include "replica/plan/Uncertain.h"

#include <algorithm>

namespace kestrowan::replica::plan {

using model::Intent;
using model::Path;
using model::State;

namespace {

/// The path and those that requests without an answer join to it: by a move, or from above.
std::vector<Path> joined(const State& state, const Path& path) {
  std::vector<Path> result{path};
  for (std::size_t i = 0; i < result.size(); ++i) {
    for (const Intent* intent : state.intents().atOrAbove(result[i])) {
      for (const Path& other : intent->paths()) {
        if (std::find(result.begin(), result.end(), other) == result.end()) {
          result.push_back(other);
        }
      }
    }
  }
  return result;
}

const Intent* underWayAtAny(const State& state, const std::vector<Path>& paths) {
  for (const Path& path : paths) {
    for (const Intent* intent : state.intents().atOrAbove(path)) {
      if (intent->isUnderWay()) return intent;
    }
  }
  return nullptr;
}

}  // namespace

const Intent* underWayAt(const State& state, const Path& path) {
  if (!state.intents().isAnyUnderWay()) return nullptr;
  return underWayAtAny(state, joined(state, path));
}

bool isUncertain(const State& state, const Path& path, const std::vector<Path>& answered) {
  if (!state.intents().isAnyUnderWay() && answered.empty()) return false;
  const auto paths = joined(state, path);
  if (underWayAtAny(state, paths)) return true;
  return std::any_of(paths.begin(), paths.end(), [&](const Path& one) {
    return std::any_of(answered.begin(), answered.end(),
                       [&](const Path& other) { return one.isAtOrBelow(other); });
  });
}

}  // namespace kestrowan::replica::plan
