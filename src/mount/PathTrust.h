#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <optional>
#include <string>

#include "mount/PathWalk.h"

namespace kestrowan {

/// Whether other users can decide what lies at a path. Pure of state; usable from every thread.

/// Whether others than the owner may write in the folder, or to the file, of these attributes.
bool othersMayWrite(const struct stat& status);

/// Judges the parts of a way for `user`: every folder and link belongs to that user or to root, and
/// no other user may write in a folder unless its sticky bit keeps others' names from them.
PathWalk::Judge trustedBy(uid_t user);

/// Why `status`, of the folder at `path`, is not that of a folder in which `user` alone may write,
/// in words that begin with the path and say what to do.
std::optional<std::string> ownFolderFault(const std::string& path, const struct stat& status,
                                          uid_t user);

/// Why the folder at `path` (absolute) cannot be trusted by this process's user, in words that name
/// the part which is at fault: it is missing, or not the user's alone to write in, or a part of the
/// way to it is others' to exchange.
std::optional<std::string> folderFault(const std::string& path);

}  // namespace kestrowan
