#pragma once

#include <chrono>

#include "async/Loop.h"
#include "platform/base/Task.h"

namespace kestrowan::async {

/// Ends once `delay` is over.
Task<void> sleepFor(Loop& loop, std::chrono::milliseconds delay);

}  // namespace kestrowan::async
