#pragma once

#include <optional>
#include <string>

#include "platform/foundation/NSFileManager.h"

namespace kestrowan::host {

/// Who may do what with the directory and the file through which the host application says how to
/// reach it. Pure of state; usable from every thread.

/// The container as `files` has it; absent when there is none.
std::optional<std::string> containerPath(NSFileManager& files);

/// Whether `container` belongs to this user and nobody else may write in it.
bool isSafeContainer(const std::string& container);

/// What about the container, or the bridge file in it, needs the user's attention, in words; absent
/// when nothing does. `container` is where it is looked for; absent when there is none.
std::optional<std::string> bridgeWarning(const std::optional<std::string>& container);

}  // namespace kestrowan::host
