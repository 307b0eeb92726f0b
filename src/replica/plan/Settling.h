#pragma once

#include "replica/model/Edit.h"
#include "replica/plan/Step.h"

namespace kestrowan::replica::plan {

/// Changes the three states as a step says that was planned for just this state. The edit is to be
/// committed by the caller.
void settle(model::Edit& edit, const Settle& step);

}  // namespace kestrowan::replica::plan
