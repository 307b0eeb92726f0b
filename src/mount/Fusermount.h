#pragma once

#include <string>

#include "platform/base/UniqueFd.h"

namespace kestrowan::mount {

/// What the system's program `fusermount3` does, which may mount and unmount for a user. It runs in
/// a process of its own, because this one must not touch its own mount, and with an environment of
/// its own. Usable from every thread. All throw `NSError` of `NSPOSIXErrorDomain`, with a text that
/// says what to do, when the program is not there, cannot be trusted or cannot be run.

/// Its path: one of the system's own places, whatever $PATH says, where root alone can put it.
std::string fusermountProgram();

/// Mounts at `path` (absolute) with `options`, as of mount(8), and gives the connection to the
/// kernel. Throws EIO with the program's complaint as well.
UniqueFd fusermountMount(const std::string& path, const std::string& options);

/// Unmounts what lies at `path`. `lazily` takes the mount away from its place at once, and ends it
/// when no program uses it any more. Returns the program's complaint, empty when it succeeded.
std::string fusermountUnmount(const std::string& path, bool lazily);

}  // namespace kestrowan::mount
