#pragma once

#include <vector>

#include "replica/model/State.h"

namespace kestrowan::replica::plan {

/// A request that is under way and may be changing what is at a path, so that no listing can tell:
/// one with a source or a target at or above it; the same for the places to which moves without an
/// answer may have brought what is there, or from which. Absent when there is none.
const model::Intent* underWayAt(const model::State& state, const model::Path& path);

/// There is such a request, or one of these paths is at or above such a place.
bool isUncertain(const model::State& state, const model::Path& path,
                 const std::vector<model::Path>& answered);

}  // namespace kestrowan::replica::plan
