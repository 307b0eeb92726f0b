#pragma once

#include "replica/model/Edit.h"

namespace kestrowan::replica::plan {

/// What lay at `from` is at `to` now. Requests without an answer at or below it are known by both
/// paths from now on: they may have landed before it moved.
void moveIntents(model::Edit& edit, const model::Path& from, const model::Path& to);

}  // namespace kestrowan::replica::plan
