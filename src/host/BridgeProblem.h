#pragma once

#include <optional>
#include <string>

#include "platform/foundation/NSFileManager.h"
#include "replica/Replica.h"

namespace kestrowan::host {

/// Why there is no usable bridge file, with the place where it was looked for and what to do, on
/// several lines; nothing when there is one. `files` are the platform's own. Usable from every
/// thread.
std::optional<std::string> bridgeProblem(NSFileManager& files);

/// The replica's status; while it is held for want of a usable bridge file, that is the reason, on
/// one line.
replica::Status statusWithBridge(const replica::Replica& replica, NSFileManager& files);

}  // namespace kestrowan::host
