#pragma once

#include "mount/Fuse.h"

namespace kestrowan::mount {

/// The table of functions that libfuse calls for the kernel's requests.
const fuse_lowlevel_ops& operations();

}  // namespace kestrowan::mount
