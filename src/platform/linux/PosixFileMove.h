#pragma once

#include <string>

namespace kestrowan {

/// Moves the file `from` to `to`, between file systems too, and never replaces anything. Gives 0,
/// or the value of `errno`; then the file is where it was, and nothing new at `to`.
int moveFileExclusively(const std::string& from, const std::string& to);

/// The part of such a move for file systems that cannot rename without replacing.
int moveFileByLink(const std::string& from, const std::string& to);

/// The part of such a move between file systems: regular files only.
int moveFileByCopy(const std::string& from, const std::string& to);

}  // namespace kestrowan
