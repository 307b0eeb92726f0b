#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "replica/model/State.h"

namespace kestrowan::replica::plan {

/// Whether letters of the name could be composed in another way.
bool hasForms(std::string_view name);

/// Whether two names differ, and only in how their letters are composed.
bool isOtherForm(std::string_view a, std::string_view b);

/// Which of the names that a folder's listing shows are other forms of names that are known in that
/// folder, here, there or by a request without an answer, and that the listing lacks: by the name
/// that is shown, the known one. No two have the same. `isGiven`: whether the provider may show a
/// name that is known here or there in another form; it may always do so with one in a request.
std::map<std::string, std::string, std::less<>> knownForms(
    const model::State& state, const model::Path& folder, const std::set<std::string_view>& listed,
    const std::function<bool(std::string_view name)>& isGiven);

}  // namespace kestrowan::replica::plan
