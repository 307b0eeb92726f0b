#pragma once

#include "replica/model/Edit.h"

namespace kestrowan::replica::plan {

/// The provider has the item no more, nor what is in it. `isOwn`: by a request of ours, so that
/// what is still here is to be made anew rather than removed here too; the same holds for a file
/// that a request without an answer may have overwritten or removed (see `mayLand`). Of an item
/// that the provider has.
void markAbsent(model::Edit& edit, model::ItemNumber item, bool isOwn);

}  // namespace kestrowan::replica::plan
