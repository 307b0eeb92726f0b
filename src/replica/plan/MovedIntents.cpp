#include "replica/plan/MovedIntents.h"

#include <algorithm>

namespace kestrowan::replica::plan {

using model::Edit;
using model::Intent;
using model::Path;
using model::Verb;

namespace {

bool isKnown(const model::Intents& intents, const Path& path, Intent intent) {
  const auto there = intents.atOrAbove(path);
  return std::any_of(there.begin(), there.end(), [&](const Intent* other) {
    intent.number = other->number;
    return intent == *other;
  });
}

}  // namespace

void moveIntents(Edit& edit, const Path& from, const Path& to, model::Time now) {
  std::vector<Intent> below;
  for (const Intent* intent : edit->intents().around(from)) below.push_back(*intent);
  for (const Intent& intent : below) {
    // The one that brought it there.
    if (intent.verb == Verb::move && intent.source == from) continue;
    Intent other = intent;
    if (other.source) other.source = other.source->moved(from, to);
    if (other.target) other.target = other.target->moved(from, to);
    if (other != intent && other.isUnderWay()) other.ended = other.until = now;
    if (other == intent || isKnown(edit->intents(), other.paths().front(), other)) continue;
    edit.add(other);
  }
}

}  // namespace kestrowan::replica::plan
