#pragma once

#include <optional>
#include <string>

#include "host/Registry.h"

namespace kestrowan::host {

/// Whether a host that does not run any more left its mount behind. Touches no mount. Throws
/// `NSError` when the system's table of mounts cannot be read.
bool isLeftMounted(const HostEntry& host);

/// The host that left its mount behind at `path` (absolute, or relative to `directory`); nothing
/// when that is none.
std::optional<HostEntry> hostThatLeft(const std::string& path, const std::string& directory);

/// Takes such a mount away. Throws `NSError` with a text for a person.
void removeLeftMount(const HostEntry& host);

}  // namespace kestrowan::host
