#pragma once

#include <chrono>

#include "platform/fileprovider/NSFileProviderItem.h"

namespace kestrowan::host {

/// Whether the listing of a folder that our extension was asked for so long ago came whole: its
/// answer's XML was well-formed to its end, and nothing of it was left out. False as well when that
/// cannot be told any more. Usable from every thread.
bool cameWhole(const NSFileProviderItemIdentifier& folder, std::chrono::milliseconds age);

}  // namespace kestrowan::host
