#include "replica/Log.h"

#include <string>

#include "platform/foundation/Logger.h"

namespace kestrowan::replica {

using model::Item;
using model::ItemNumber;
using model::State;

namespace {

const Logger& replicaLog() {
  static const Logger log("com.kestrowan.app.FileProvider", "replica");
  return log;
}

/// As programs see it, else as the provider has or had it; null when it is nowhere.
const model::Place* placeOf(const Item& item) {
  if (item.here()) return &item.here()->place;
  if (item.there()) return &item.there()->place;
  return item.agreed() ? &item.agreed()->place : nullptr;
}

}  // namespace

std::string shownPath(const State& state, const Item& item) {
  if (item.number() == ItemNumber::root) return "/";
  std::string path;
  const Item* at = &item;
  while (at && at->number() != ItemNumber::root) {
    const model::Place* place = placeOf(*at);
    if (!place) break;
    path.insert(0, "/" + place->name);
    at = state.find(place->folder);
  }
  return path;
}

void logItem(std::string_view what, const State& state, ItemNumber number,
             std::string_view detail) {
  const Item* item = state.find(number);
  // Limits count the messages of one form, and those of another kind are not to count with them.
  const auto form = std::string(what) + ": %{public}s %{public}s";
  replicaLog().error(form, {item ? shownPath(state, *item) : std::string(), detail});
}

}  // namespace kestrowan::replica
