#pragma once

#include <optional>
#include <string>

#include "platform/base/UniqueFd.h"
#include "platform/foundation/NSFileManager.h"

namespace kestrowan::host {

/// Whether the directory and the file through which the host application says how to reach it are
/// the user's alone to change, for what can be written there chooses the server. Pure of state;
/// usable from every thread. What is absent below needs no words.

/// The container as `files` has it; absent when there is none.
std::optional<std::string> containerPath(NSFileManager& files);

/// Why the bridge file in `container` is not read, in words that name what is at fault: the
/// container is not to be trusted (`folderFault`), or the file is a symbolic link, belongs to
/// another user, or can be written by others. Absent for a file that is not there.
std::optional<std::string> bridgeRefusal(const std::string& container);

/// What about the container, or the bridge file in it, needs the user's attention, in words: that
/// it is refused, or that others may read the password. `container` is where it is looked for;
/// absent when there is none.
std::optional<std::string> bridgeWarning(const std::optional<std::string>& container);

/// Opens the bridge file at `path` (absolute) to read. The way to it and the file are judged as
/// they are opened. Throws `NSError` of `NSCocoaErrorDomain` when it is absent or refused.
UniqueFd openBridgeFile(const std::string& path);

}  // namespace kestrowan::host
