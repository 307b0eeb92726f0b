#pragma once

#include <string>
#include <string_view>

#include "replica/model/State.h"
#include "replica/plan/Names.h"

namespace kestrowan::replica::plan {

using NameForm = std::string (Names::*)(std::string_view name, unsigned number) const;

/// A place in the folder of `place`, under the first name of the form that nothing has there or
/// here, and that no request without an answer may give to something.
model::Place freePlace(const model::State& state, const model::Place& place, const Names& names,
                       NameForm form);

}  // namespace kestrowan::replica::plan
