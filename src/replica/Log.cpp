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

}  // namespace

std::string shownPath(const State& state, const Item& item) {
  if (item.number() == ItemNumber::root) return "/";
  std::string path;
  const Item* at = &item;
  while (at && at->number() != ItemNumber::root) {
    const auto& place = at->here() ? at->here()->place : at->there()->place;
    path.insert(0, "/" + place.name);
    const Item* folder = state.find(place.folder);
    at = folder && (folder->here() || folder->there()) ? folder : nullptr;
  }
  return path;
}

void logItem(std::string_view what, const State& state, ItemNumber number,
             std::string_view detail) {
  const Item* item = state.find(number);
  const bool isSomewhere = item && (item->here() || item->there());
  // Limits count the messages of one form, and those of another kind are not to count with them.
  const auto form = std::string(what) + ": %{public}s %{public}s";
  replicaLog().error(form, {isSomewhere ? shownPath(state, *item) : std::string(), detail});
}

}  // namespace kestrowan::replica
