#pragma once

#include <optional>
#include <string>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSFileManager.h"
#include "replica/Replica.h"

namespace kestrowan::host {

/// Why there is no usable bridge file, with the place where it was looked for and what to do, on
/// several lines; nothing when there is one. `files` are the platform's own. Usable from every
/// thread.
std::optional<std::string> bridgeProblem(NSFileManager& files);

/// Why a server is not asked any more, in words that name its port: it refused the credentials of
/// the bridge file, or does not have its certificate. The error's own words for another error.
std::string distrustText(const NSError& error);

/// The replica's status; while it is held for want of a usable bridge file, that is the reason, on
/// one line; else what `distrustText` says.
replica::Status statusWithBridge(const replica::Replica& replica, NSFileManager& files);

}  // namespace kestrowan::host
