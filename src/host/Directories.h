#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/base/UniqueFd.h"

namespace kestrowan::host {

/// The directories that hosts and commands agree on. Pure of state; usable from every thread.
/// Functions that fail throw `NSError` of `NSPOSIXErrorDomain` with a text for a person.

/// "kestrowan" in $XDG_STATE_HOME, else in ~/.local/state. Creates nothing. Throws when the
/// environment names neither.
std::string stateHome();

/// The user's directory for sockets, $XDG_RUNTIME_DIR, when it is there and can be trusted
/// (`folderFault`).
std::optional<std::string> runtimeHome();

/// Whether `name` can be a domain's: 1 to 64 ASCII letters, digits, "-", "_" and ".", the first no
/// ".".
bool isDomainName(std::string_view name);

/// Where a domain's state lies unless somebody names another place.
std::string standardStateDirectory(std::string_view domain);

/// Makes `path` (absolute) with all that is missing above it, mode 0700, and opens it, never
/// through a symbolic link in its own place. Throws EACCES, with the part that is at fault, when it
/// belongs to another user or others may write in it, or another user could exchange a part of the
/// way to it.
UniqueFd openPrivateDirectory(const std::string& path);

/// Gives the directory at `path`, which is open, mode 0700. A mode that let others look in is said
/// in the log.
void closeToOthers(const UniqueFd& directory, const std::string& path);

/// A short name for `path` that other paths will not have: 16 hexadecimal digits.
std::string shortName(std::string_view path);

}  // namespace kestrowan::host
