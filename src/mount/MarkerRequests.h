#pragma once

#include "mount/Fuse.h"

namespace kestrowan::mount {

/// Puts functions for requests that can be about a file of `MarkerFiles` into `table`. They answer
/// for such a file, and leave every other to those of `Requests.h`.
void serveMarkers(fuse_lowlevel_ops& table);

}  // namespace kestrowan::mount
