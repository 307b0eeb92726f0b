#pragma once

#include "replica/model/State.h"
#include "replica/plan/Names.h"
#include "replica/plan/Step.h"

namespace kestrowan::replica::plan {

/// What is to be done next about an item. Pure: it depends on what it is given alone, and changes
/// nothing.
///
/// First come looks for requests without an answer, then what resolves a difference that the
/// provider showed, of every item, then requests. A step may be about another item than the one
/// asked for: the one that must go first.
Step plan(const model::State& state, model::ItemNumber item, model::Time now, const Names& names);

/// What the requests without an answer need: `Look` when one has not been looked for since its end
/// or since its landing time, `Settle` (end) when one can no longer land and all is merged,
/// `WaitUntil` the next landing time, or `Nothing` when there are none. `WaitFor` the item of one
/// that is still under way.
Step planForIntents(const model::State& state, model::Time now);

}  // namespace kestrowan::replica::plan
