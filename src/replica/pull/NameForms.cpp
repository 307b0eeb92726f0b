#include "replica/pull/NameForms.h"

#include <algorithm>

#include "replica/model/ShownName.h"
#include "replica/plan/NameForms.h"

namespace kestrowan::replica::pull {

using model::Item;
using model::ItemNumber;
using model::Path;
using model::State;

NameForms::NameForms(store::TreeJournal& journal)
    : journal_(journal), areChanged_(journal.changesNames()), isKept_(areChanged_.load()) {}

const Item* NameForms::child(const State& state, ItemNumber folder, const std::string& name) const {
  if (const Item* item = state.hereAt({folder, name})) return item;
  if (!areChanged_ || !plan::hasForms(name)) return nullptr;
  const auto inside = state.hereIn(folder);
  const auto found = std::find_if(inside.begin(), inside.end(), [&](const Item* item) {
    return plan::isOtherForm(item->here()->place.name, name);
  });
  return found == inside.end() ? nullptr : *found;
}

bool NameForms::isGiven(ItemNumber folder, std::string_view name) const {
  if (areChanged_) return true;
  const std::lock_guard lock(mutex_);
  return given_.contains({folder, std::string(name)});
}

void NameForms::noteGiven(ItemNumber folder, std::string_view name) {
  if (areChanged_ || !plan::hasForms(name)) return;
  const std::lock_guard lock(mutex_);
  given_.emplace(folder, name);
}

void NameForms::noteShown(std::string_view given, std::string_view shown) {
  if (plan::isOtherForm(given, shown)) areChanged_ = true;
}

bool NameForms::mayBeChanged() const {
  if (areChanged_) return true;
  const std::lock_guard lock(mutex_);
  return !given_.empty();
}

/// A name that was shown as it was given, or whose item is no more, tells nothing any longer.
void NameForms::forgetSeen(const State& state, ItemNumber folder, const FolderListing& listing) {
  const std::lock_guard lock(mutex_);
  std::erase_if(given_, [&](const Given& given) {
    return areChanged_ || (given.first == folder &&
                           (listing.find(given.second) || !state.thereAt({folder, given.second})));
  });
}

std::shared_ptr<const FolderListing> NameForms::known(
    const State& state, const Path& path, std::shared_ptr<const FolderListing> listing) {
  const Item* folder = state.atPath(path);
  if (!folder || (!mayBeChanged() && state.intents().in(path).empty())) return listing;
  std::set<std::string_view> names;
  for (const auto& entry : listing->entries) {
    if (plan::hasForms(entry.name())) names.insert(names.end(), entry.name());
  }
  const auto forms = plan::knownForms(state, path, names, [&](std::string_view name) {
    const Item* item = state.thereAt({folder->number(), std::string(name)});
    const bool wasShown = item && model::isShownName(item->there()->identifier);
    return wasShown || isGiven(folder->number(), name);
  });
  if (!forms.empty()) areChanged_ = true;
  forgetSeen(state, folder->number(), *listing);
  if (forms.empty()) return listing;
  auto result = std::make_shared<FolderListing>(*listing);
  result->rename(forms);
  return result;
}

void NameForms::keep() {
  if (isKept_ || !areChanged_) return;
  journal_.noteChangedNames();
  isKept_ = true;
}

}  // namespace kestrowan::replica::pull
