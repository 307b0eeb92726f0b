#include "replica/plan/Absence.h"

namespace kestrowan::replica::plan {

using model::Edit;
using model::Item;
using model::ItemNumber;

void markAbsent(Edit& edit, ItemNumber item, bool isOwn) {
  for (const Item* child : edit->thereIn(item)) markAbsent(edit, child->number(), isOwn);
  edit.setThere(item, std::nullopt);
  if (isOwn) edit.setAgreed(item, std::nullopt);
}

}  // namespace kestrowan::replica::plan
