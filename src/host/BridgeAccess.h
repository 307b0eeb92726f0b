#pragma once

#include <optional>
#include <string>

#include "platform/base/UniqueFd.h"
#include "platform/foundation/NSFileManager.h"

namespace kestrowan::host {

/// Who may do what with the directory and the file through which the host application says how to
/// reach it. Whoever can write there chooses the server, so that both must be the user's own. Pure
/// of state; usable from every thread. What is absent below needs no words.

/// The container as `files` has it; absent when there is none.
std::optional<std::string> containerPath(NSFileManager& files);

/// Why the directory `container` is taken for none, in words: it belongs to somebody else, or
/// others may write in it.
std::optional<std::string> containerRefusal(const std::string& container);

/// Why the bridge file in `container` is not read, in words: the container is refused, or the file
/// is a symbolic link or belongs to somebody else. Absent for a file that is not there.
std::optional<std::string> bridgeRefusal(const std::string& container);

/// What about the container, or the bridge file in it, needs the user's attention, in words: that
/// it is refused, or that others may read the password. `container` is where it is looked for;
/// absent when there is none.
std::optional<std::string> bridgeWarning(const std::optional<std::string>& container);

/// Opens the bridge file at `path` to read, and judges what was opened. Throws `NSError` of
/// `NSCocoaErrorDomain` when it is absent or refused.
UniqueFd openBridgeFile(const std::string& path);

}  // namespace kestrowan::host
