#pragma once

#include <chrono>
#include <optional>

#include "replica/model/State.h"

namespace kestrowan::replica::plan {

/// For how long after its end a request without an answer may still land.
inline constexpr std::chrono::minutes kLandingTime{10};

/// An earlier request of ours may have put other contents than those here on this file at `place`,
/// or may have removed it there, or may still. The change that another client made there was
/// perhaps made without having seen what is here.
bool mayLand(const model::State& state, const model::Item& item, const model::Place& place);

/// Until when a request of ours may still destroy what lies at this path: one that removes it or
/// something above it, or one that puts contents there. Absent when none may.
std::optional<model::Time> endangeredUntil(const model::State& state, const model::Path& path);

}  // namespace kestrowan::replica::plan
