#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <ctime>

#include "mount/Fuse.h"
#include "mount/Session.h"
#include "replica/Replica.h"

namespace kestrowan::mount {

/// What `stat` shows of an item whose contents take `allocated` bytes on the disk.
struct stat fileStatus(const replica::Attributes& attributes, std::int64_t allocated,
                       const Appearance& appearance);
/// The same, as the answer to the look-up of a name.
fuse_entry_param kernelEntry(const replica::Attributes& attributes, std::int64_t allocated,
                             const Appearance& appearance);

/// The bits of `mode` that an item keeps. A mount is `nosuid`: none of them lets a program run as
/// another user.
std::uint16_t permissionBits(mode_t mode);

/// Nanoseconds since 1970-01-01 UTC; the nearest that can be said so, for years out of range.
std::int64_t nanoseconds(const timespec& time);
timespec timeOf(std::int64_t nanoseconds);

}  // namespace kestrowan::mount
