#include "replica/plan/Absence.h"

#include "replica/plan/Landing.h"

namespace kestrowan::replica::plan {

using model::Edit;
using model::Item;
using model::ItemNumber;

void markAbsent(Edit& edit, ItemNumber item, bool isOwn) {
  for (const Item* child : edit->thereIn(item)) markAbsent(edit, child->number(), isOwn);
  const Item& gone = edit->item(item);
  const bool isOurs =
      isOwn || (gone.isFile() && gone.here() && mayLand(*edit, gone, gone.there()->place));
  edit.setThere(item, std::nullopt);
  if (isOurs) edit.setAgreed(item, std::nullopt);
}

}  // namespace kestrowan::replica::plan
