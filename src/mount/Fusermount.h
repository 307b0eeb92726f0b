#pragma once

#include <string>

namespace kestrowan::mount {

/// Unmounts what lies at `path` with the program `fusermount3`, which may do that for a user; in a
/// process of its own, because this one must not touch its own mount. `lazily` takes the mount away
/// from its place at once, and ends it when nobody uses it any more.
///
/// Returns the program's complaint, empty when it succeeded. Throws `NSError`, with a text that
/// says what to do, when the program cannot be run.
std::string fusermountUnmount(const std::string& path, bool lazily);

}  // namespace kestrowan::mount
