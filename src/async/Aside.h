#pragma once

#include "async/Loop.h"
#include "platform/base/Task.h"

namespace kestrowan::async {

/// Runs `function`, which may block, beside the loop (see `Loop::postAside`), and ends on the loop
/// once it has; throws what it throws. It may use whatever the awaiting coroutine has: while it
/// runs, a scope does not free that.
Task<void> runAside(Loop& loop, Loop::Function function);

}  // namespace kestrowan::async
