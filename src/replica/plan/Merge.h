#pragma once

#include "replica/model/State.h"
#include "replica/plan/Names.h"
#include "replica/plan/Step.h"

namespace kestrowan::replica::plan {

/// What one item needs, by its three states and the intents: the first row of a table that fits.
/// Gives `Nothing`, `WaitFor`, `Fetch`, `Settle`, or a `Push` without regard to what must happen
/// before it.
///
///     here   there            agreed  then
///     -      -                any     drop
///     any    new              any     own, when it may be the effect of a request without an
///                                     answer and has its bytes
///     -      yes              -       show; its folder first, and what is at its place goes aside
///                                     or, when it is the same, joins
///     -      other contents   yes     back
///     -      yes              yes     push: remove
///     name   any              yes     part, when the item came to a name that stays here
///     yes    -                -       push: create, unless its name stays here
///     file   -                yes     anew when it was changed here, else forget
///     folder -                yes     anew when it was moved or something stays in it, else forget
///     file   other contents   any     agree, pull or beside
///     place  differs          yes     push: move
///     bytes  differ           yes     push: contents
///
/// Bytes that are not on this disk are fetched where they decide, and where a late request of ours
/// may destroy them. A file that is not downloaded has no contents of its own to lose: it is pulled
/// or forgotten where another one would go beside or be made anew.
Step merge(const model::State& state, const model::Item& item, const Names& names);

}  // namespace kestrowan::replica::plan
