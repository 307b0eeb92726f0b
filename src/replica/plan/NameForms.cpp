#include "replica/plan/NameForms.h"

#include <algorithm>
#include <vector>

#include "platform/foundation/NSString.h"

namespace kestrowan::replica::plan {

using model::Item;
using model::Path;
using model::State;
using Candidates = std::set<std::string>;

bool hasForms(std::string_view name) {
  return std::any_of(name.begin(), name.end(),
                     [](char byte) { return static_cast<unsigned char>(byte) >= 0x80; });
}

bool isOtherForm(std::string_view a, std::string_view b) {
  return a != b && hasForms(a) && hasForms(b) && isEqualToString(a, b);
}

std::map<std::string, std::string, std::less<>> knownForms(
    const State& state, const Path& folder, const std::set<std::string_view>& listed,
    const std::function<bool(std::string_view name)>& isGiven) {
  std::map<std::string, std::string, std::less<>> result;
  const Item* above = state.atPath(folder);
  std::vector<std::string> shown;
  for (const std::string_view name : listed) {
    if (!above || !hasForms(name)) continue;
    const bool isKnown = state.thereAt({above->number(), std::string(name)}) != nullptr;
    if (!isKnown && !state.hereAt(above->number(), name)) shown.emplace_back(name);
  }
  if (shown.empty()) return result;
  Candidates candidates;
  const auto add = [&](std::string_view name) {
    if (hasForms(name) && !listed.contains(name)) candidates.emplace(name);
  };
  for (const Item* item : state.thereIn(above->number())) {
    if (isGiven(item->there()->place.name)) add(item->there()->place.name);
  }
  for (const Item* item : state.hereIn(above->number())) {
    if (isGiven(item->here()->place.name)) add(item->here()->place.name);
  }
  for (const model::Intent* intent : state.intents().in(folder)) {
    const auto& target = intent->target;
    if (target && !target->isRoot() && target->folder() == folder) add(target->name());
  }
  for (std::string& name : shown) {
    const auto known = std::find_if(candidates.begin(), candidates.end(),
                                    [&](const auto& other) { return isOtherForm(name, other); });
    if (known == candidates.end()) continue;
    result.emplace(std::move(name), *known);
    candidates.erase(known);
  }
  return result;
}

}  // namespace kestrowan::replica::plan
