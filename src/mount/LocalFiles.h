#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrowan {

/// Small questions about files of this machine. Pure of state; usable from every thread.

/// The mode of a file that is the user's alone.
inline constexpr mode_t kPrivateFile = S_IRUSR | S_IWUSR;

/// The names in the folder at `path`, "." and ".." left out; none when it cannot be read.
std::vector<std::string> namesIn(const std::string& path);

/// Whether nothing is in the folder that is open as `folder`. Throws `NSError` of
/// `NSPOSIXErrorDomain` when it cannot be read.
bool isEmptyFolder(int folder);

/// The target of the symbolic link at `path`; nothing for what is none.
std::optional<std::string> linkTarget(const std::string& path);

/// `path` (absolute) without symbolic links, "." and "..", and without a "/" at its end: empty for
/// the root. What it leads to need not be there.
std::string resolvedAsFar(const std::string& path);

/// Whether `path` is `folder`, or lies below it, told from the text of both.
bool isWithin(std::string_view path, std::string_view folder);

/// What can be read from `file`, up to `limit` bytes.
std::string readAll(int file, std::size_t limit);

}  // namespace kestrowan
