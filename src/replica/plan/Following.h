#pragma once

#include "replica/model/Edit.h"

namespace kestrowan::replica::plan {

/// What is to be removed there after `first` has arrived is to be removed after `other` has, too.
void followAlso(model::Edit& edit, model::ItemNumber first, model::ItemNumber other);

/// A program has put `other` where the file `replaced` was: it, and what it had replaced itself,
/// stays there until `other` has arrived. Before `replaced` leaves its place.
void followReplacement(model::Edit& edit, model::ItemNumber replaced, model::ItemNumber other);

}  // namespace kestrowan::replica::plan
