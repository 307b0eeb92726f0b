#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/base/UniqueFd.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::replica {

/// What the files of the store have in common.

/// The error of `NSPOSIXErrorDomain` for a value of `errno`, with a text that names the file.
NSError fileError(int number, std::string_view path);

/// Makes the directory where there is none, mode 0700, and says whether it did. Throws `NSError`
/// when it is no directory of this user's own; a symbolic link is none.
bool makePrivateDirectory(const std::string& path);

/// Makes what was made, renamed or removed in the directory durable.
void syncDirectory(const std::string& path);

/// The names in a directory, without "." and "..".
std::vector<std::string> namesIn(const std::string& directory);

/// Opens a regular file, and neither follows a symbolic link nor waits for anything.
UniqueFd openRegularFile(const std::string& path, int flags);

}  // namespace kestrowan::replica
