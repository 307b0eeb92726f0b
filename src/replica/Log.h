#pragma once

#include <string_view>

#include "replica/model/State.h"

namespace kestrowan::replica {

/// One line about an item for the user of the host. `what` is a literal and tells its kind.
void logItem(std::string_view what, const model::State& state, model::ItemNumber item,
             std::string_view detail = {});

/// From the root, beginning with "/": as programs see it, else as the provider has or had it;
/// empty when it is nowhere.
std::string shownPath(const model::State& state, const model::Item& item);

}  // namespace kestrowan::replica
