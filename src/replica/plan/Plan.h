#pragma once

#include <cstdint>
#include <optional>

#include "replica/model/State.h"
#include "replica/plan/Names.h"
#include "replica/plan/Step.h"

namespace kestrowan::replica::plan {

/// What is to be done next about an item. Pure: it depends on what it is given alone, and changes
/// nothing. Any number of requests may be under way; it answers about the surroundings of this item
/// (see `Surroundings`), whatever is under way, unknown or not merged elsewhere.
///
/// First come answers and looks for requests around it, then what resolves a difference that the
/// provider showed, then its own request, when nothing is in its way (see `Order`). A step may be
/// about another item than the one asked for. What `WaitFor` names can go, or waits for an answer
/// or a time.
Step plan(const model::State& state, model::ItemNumber item, model::Time now, const Names& names);

/// What a request without an answer needs, whatever became of its item: `WaitForAnswer` while it is
/// under way, `Look` when it has not been looked for since its end or since its landing time,
/// `WaitUntil` its landing time, `WaitFor` an item that is to be merged before it may be forgotten,
/// or `Settle` (end). `Nothing` when there is none of that number.
Step planForIntent(const model::State& state, model::IntentNumber intent, model::Time now);

}  // namespace kestrowan::replica::plan
