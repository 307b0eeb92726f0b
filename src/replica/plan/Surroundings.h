#pragma once

#include <optional>

#include "replica/model/State.h"
#include "replica/plan/Step.h"

namespace kestrowan::replica::plan {

/// What the requests without an answer need before anything is decided about an item; absent when
/// its surroundings are clear. What is under way or unknown elsewhere is no matter.
///
/// Of these requests: those that were made for it, and those with a source or a target that is, is
/// above or is below a place that it has here, there or in the agreed state.
///
/// `WaitForAnswer` while one of them is under way, or one that keeps a listing from telling of
/// these places (see `underWayAt`); `Look` when one has not been looked for since its end or since
/// its landing time.
std::optional<Step> openAround(const model::State& state, const model::Item& item, model::Time now);

/// The same of one request alone.
std::optional<Step> openIntent(const model::State& state, const model::Intent& intent,
                               model::Time now);

/// What a request may have done is not merged yet: the item to be merged first; absent when all is.
std::optional<model::ItemNumber> unmergedAround(const model::State& state,
                                                const model::Intent& intent);

}  // namespace kestrowan::replica::plan
