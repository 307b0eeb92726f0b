#include "replica/plan/Plan.h"

#include <algorithm>
#include <optional>

#include "replica/plan/Merge.h"
#include "replica/plan/Order.h"

namespace kestrowan::replica::plan {

using model::Intent;
using model::Item;
using model::ItemNumber;
using model::Path;
using model::State;
using model::Time;

namespace {

/// The folders that the intents touch, as far as the provider has them.
std::vector<ItemNumber> touchedFolders(const State& state) {
  std::vector<ItemNumber> result;
  for (const Intent& intent : state.intents().all()) {
    for (const Path& path : intent.paths()) {
      const Item* folder = state.atPath(path.folder());
      if (folder && std::find(result.begin(), result.end(), folder->number()) == result.end()) {
        result.push_back(folder->number());
      }
    }
  }
  return result;
}

}  // namespace

Step planForIntents(const State& state, Time now) {
  std::optional<Time> next;
  bool isOver = false;
  for (const Intent& intent : state.intents().all()) {
    if (intent.isUnderWay()) return WaitFor{intent.item};
  }
  for (const Intent& intent : state.intents().all()) {
    const bool hasLanded = intent.until <= now;
    if (!intent.looked || (hasLanded && !intent.over)) return Look{touchedFolders(state)};
    isOver = isOver || intent.over;
    if (!next || intent.until < *next) next = intent.until;
  }
  if (isOver && state.unmerged().empty()) return Settle{Resolution::end, {}, {}, {}};
  if (next) return WaitUntil{*next};
  return Nothing{};
}

Step plan(const State& state, ItemNumber number, Time now, const Names& names) {
  const Step intents = planForIntents(state, now);
  const bool isOpen =
      std::holds_alternative<Look>(intents) || std::holds_alternative<WaitFor>(intents);
  if (isOpen) return intents;
  const Item* item = state.find(number);
  if (!item) return Nothing{};
  const Step step = merge(state, *item, names);
  const Push* push = std::get_if<Push>(&step);
  if (!push) return step;
  if (!state.unmerged().empty()) return WaitFor{*state.unmerged().begin()};
  if (std::holds_alternative<Settle>(intents)) return intents;
  return order(state, *push, names);
}

}  // namespace kestrowan::replica::plan
