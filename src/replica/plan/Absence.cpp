#include "replica/plan/Absence.h"

#include <algorithm>

#include "replica/plan/Landing.h"

namespace kestrowan::replica::plan {

using model::Edit;
using model::Intent;
using model::Item;
using model::ItemNumber;
using model::Path;
using model::State;
using model::Verb;

namespace {

/// Of an item with nothing in it.
void markOne(Edit& edit, ItemNumber item, bool isOwn) {
  const Item& gone = edit->item(item);
  const bool isOurs =
      isOwn || (gone.isFile() && gone.here() && mayLand(*edit, gone, gone.there()->place));
  edit.setThere(item, std::nullopt);
  if (isOurs) edit.setAgreed(item, std::nullopt);
}

}  // namespace

void markAbsent(Edit& edit, ItemNumber item, bool isOwn) {
  for (const Item* child : edit->thereIn(item)) markAbsent(edit, child->number(), isOwn);
  markOne(edit, item, isOwn);
}

Marked markAbsent(Edit& edit, ItemNumber item, bool isOwn, std::size_t& budget,
                  const std::function<bool(const Item&)>& mayGo) {
  while (budget > 0) {
    const Item* child = edit->anyThereIn(item);
    if (!child) break;
    const Marked marked = markAbsent(edit, child->number(), isOwn, budget, mayGo);
    if (marked != Marked::all) return marked;
  }
  if (budget == 0) return Marked::more;
  --budget;
  if (edit->item(item).isFile() && !mayGo(edit->item(item))) return Marked::stays;
  markOne(edit, item, isOwn);
  return Marked::all;
}

bool isOwnRemoval(const State& state, const Path& path) {
  const auto above = state.intents().atOrAbove(path);
  return std::any_of(above.begin(), above.end(),
                     [](const Intent* intent) { return intent->verb == Verb::remove; });
}

}  // namespace kestrowan::replica::plan
