#pragma once

#include <functional>
#include <utility>

#include "mount/EventCaller.h"
#include "mount/UntoldChanges.h"

namespace kestrowan::mount {

/// How programs that watch folders learn of what changed at the server: what is to be told, and
/// which process tells it. Shared by a mount and its host. Usable from every thread.
struct WatchEvents {
  explicit WatchEvents(std::function<void()> wake) : untold(std::move(wake)) {}

  UntoldChanges untold;
  EventCaller caller;
};

}  // namespace kestrowan::mount
