#include "replica/store/TreeLoader.h"

#include <utility>

#include "platform/foundation/NSString.h"
#include "replica/model/Restorer.h"
#include "replica/model/ShownName.h"
#include "replica/remote/ValidName.h"
#include "replica/store/IntentRow.h"
#include "replica/store/Reservations.h"
#include "replica/store/TreeRow.h"

namespace kestrowan::replica::store {

using model::Intent;
using model::IntentNumber;
using model::Item;
using model::ItemNumber;
using model::Restorer;
using model::State;

State TreeLoader::load() {
  Restorer restorer;
  Statement items(database_, kLoadTree);
  while (items.step()) {
    if (auto item = treeItemFromRow(items)) {
      restorer.add(*std::move(item));
    } else {
      leftOutItems_.push_back(items.number(0).value_or(0));
    }
  }
  Statement intents(database_, kLoadIntents);
  while (intents.step()) {
    const auto intent = intentFromRow(intents);
    const bool isTaken = intent && restorer.add(*intent);
    if (!isTaken) leftOutIntents_.push_back(intents.number(0).value_or(0));
  }
  const auto next = Reservations(database_).reserved();
  restorer.setNext(ItemNumber{next.item}, IntentNumber{next.intent});
  const bool wasLeftOut = database_.number("SELECT left_out FROM series") != 0;
  if (wasLeftOut || !leftOutItems_.empty()) restorer.noteMissing();
  State state = restorer.finish(
      [this](const State& found, const Item& item) { return isProper(found, item); });
  for (const ItemNumber number : restorer.leftOut()) {
    leftOutItems_.push_back(static_cast<std::int64_t>(number));
  }
  return state;
}

/// Whether what the provider is said to have of an item is what a listing of its folder could have
/// shown.
bool TreeLoader::isProper(const State& state, const Item& item) const {
  const auto& agreed = item.agreed();
  if (agreed && !agreed->identifier.empty() && !isFormOfName(*agreed) &&
      !form_.isItem(agreed->identifier)) {
    return false;
  }
  if (!item.there()) return true;
  const auto& there = *item.there();
  // What follows from names that can be names and folders that lead to the root is proper.
  if (form_.arePaths() && there.identifier.empty()) return true;
  if (isFormOfName(there)) return true;
  if (model::isShownName(there.identifier)) return false;
  const std::string folder = state.identifier(state.item(there.place.folder));
  return form_.isProper(state.identifier(item), folder, there.place.name);
}

/// Whether the identifier follows from another form of the name.
bool TreeLoader::isFormOfName(const model::There& there) const {
  return form_.arePaths() && model::isShownName(there.identifier) &&
         remote::isValidName(model::shownName(there)) &&
         isEqualToString(model::shownName(there), there.place.name);
}

}  // namespace kestrowan::replica::store
