#pragma once

#include <cstdint>
#include <optional>

#include "replica/model/State.h"
#include "replica/plan/Names.h"
#include "replica/plan/Step.h"

namespace kestrowan::replica::plan {

/// What must happen before a request, when everything that the provider showed is merged:
///
///     request           waits for
///     create, move      the folder is there
///                       what is at the place there. A file that is to be removed is taken over
///                       by a file that comes instead, unless it waits for others itself
///     move              what of the way there moves, when a folder goes into its own inside
///     remove            what is in `after`; all that is in a folder
///
/// Where requests wait for one another in a ring, the item whose place is waited for goes by a
/// third name. Where what moves is not on this disk and a late request of ours may destroy it, it
/// is fetched, or the landing time is waited for.
///
/// Gives `push` itself when nothing is in its way, else `WaitFor` the item that can go,
/// `WaitUntil`, `Fetch`, `Settle` (take), the `Push` of the third name, or `Stuck`.
Step order(const model::State& state, const Push& push, const Names& names);

}  // namespace kestrowan::replica::plan
