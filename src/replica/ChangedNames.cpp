#include "replica/ChangedNames.h"

#include <map>
#include <string>

#include "replica/model/Seen.h"

namespace kestrowan::replica {

using model::Content;
using model::Item;
using model::ItemChange;
using model::ItemNumber;

namespace {

using Name = std::pair<ItemNumber, std::string>;

bool isHere(const Item* item) {
  return item && item->here();
}

NameChange::Shown shownOf(const Item& item) {
  return {static_cast<Rid>(item.number()), item.isFolder() ? ItemKind::folder : ItemKind::file};
}

/// A folder's date moves with each name in it, which tells of itself.
bool isOtherFolder(const Item& before, const Item& now) {
  const auto was = model::seen(before);
  const auto is = model::seen(now);
  return was.mode != is.mode || was.mayBeWritten != is.mayBeWritten || was.conflict != is.conflict;
}

bool isRefused(const Item& item) {
  const auto& failure = item.attributes().failure;
  return failure && failure->failureClass == model::FailureClass::refused;
}

bool isFetched(const Item& item) {
  return item.here()->content != Content::none;
}

/// What attributes tell: of what is to be sent, of what became of that, and of the bytes here.
bool isInOtherState(const Item& before, const Item& now) {
  return before.isInStep() != now.isInStep() || isRefused(before) != isRefused(now) ||
         before.attributes().pinned != now.attributes().pinned ||
         isFetched(before) != isFetched(now);
}

bool isOtherInPlace(const ItemChange& change) {
  if (isInOtherState(*change.before, *change.now)) return true;
  if (change.now->isFolder()) return isOtherFolder(*change.before, *change.now);
  return change.hasOtherAttributes();
}

}  // namespace

std::vector<NameChange> ChangedNames::of(const std::vector<ItemChange>& changes) const {
  std::map<Name, NameChange> names;
  const auto at = [&](const Item& item) -> NameChange* {
    const auto& place = item.here()->place;
    if (!isWatched_(place.folder)) return nullptr;
    auto& name = names[{place.folder, std::string(place.name)}];
    name.folder = static_cast<Rid>(place.folder);
    name.name = std::string(place.name);
    return &name;
  };
  for (const ItemChange& change : changes) {
    const bool wasHere = isHere(change.before);
    const bool isStill = isHere(change.now);
    if ((!wasHere && !isStill) || isOwn_(change.any().number())) continue;
    const bool isElsewhere = change.isElsewhereHere();
    if (!isElsewhere && !isOtherInPlace(change)) continue;
    if (wasHere) {
      if (auto* name = at(*change.before)) name->before = shownOf(*change.before);
    }
    if (isStill) {
      if (auto* name = at(*change.now)) {
        name->now = shownOf(*change.now);
        name->hasOtherContents = !isElsewhere && change.hasOtherContents();
      }
    }
  }
  std::vector<NameChange> result;
  result.reserve(names.size());
  for (auto& [key, name] : names) result.push_back(std::move(name));
  return result;
}

}  // namespace kestrowan::replica
