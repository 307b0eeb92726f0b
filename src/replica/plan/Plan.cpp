#include "replica/plan/Plan.h"

#include "replica/plan/Order.h"
#include "replica/plan/Surroundings.h"

namespace kestrowan::replica::plan {

using model::Intent;
using model::IntentNumber;
using model::ItemNumber;
using model::State;
using model::Time;

Step planForIntent(const State& state, IntentNumber number, Time now) {
  const Intent* intent = state.intents().find(number);
  if (!intent) return Nothing{};
  if (auto open = openIntent(state, *intent, now)) return *open;
  if (!intent->over) return WaitUntil{intent->until};
  if (const auto item = unmergedAround(state, *intent)) return WaitFor{*item};
  return Settle{Resolution::end, {}, {}, {}, number};
}

Step plan(const State& state, ItemNumber number, Time now, const Names& names) {
  return Order(state, now, names).next(number);
}

}  // namespace kestrowan::replica::plan
