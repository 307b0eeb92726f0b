#include "replica/plan/MovedIntents.h"

#include <algorithm>

namespace kestrowan::replica::plan {

using model::Edit;
using model::Intent;
using model::Path;
using model::Verb;

namespace {

bool isKnown(const std::vector<Intent>& intents, Intent intent) {
  return std::any_of(intents.begin(), intents.end(), [&](const Intent& other) {
    intent.number = other.number;
    return intent == other;
  });
}

}  // namespace

void moveIntents(Edit& edit, const Path& from, const Path& to) {
  const auto intents = edit->intents().all();
  for (const Intent& intent : intents) {
    // The one that brought it there.
    if (intent.verb == Verb::move && intent.source == from) continue;
    Intent other = intent;
    if (other.source) other.source = other.source->moved(from, to);
    if (other.target) other.target = other.target->moved(from, to);
    if (other != intent && !isKnown(edit->intents().all(), other)) edit.add(other);
  }
}

}  // namespace kestrowan::replica::plan
