#pragma once

#include "replica/model/Edit.h"

namespace kestrowan::replica::plan {

/// What lay at `from` is at `to` now. Requests without an answer at or below it are known by both
/// paths from now on: they may have landed before it moved. Those that are under way can do no more
/// below the other path.
void moveIntents(model::Edit& edit, const model::Path& from, const model::Path& to,
                 model::Time now);

}  // namespace kestrowan::replica::plan
