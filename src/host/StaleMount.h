#pragma once

#include "host/Registry.h"

namespace kestrowan::host {

/// Whether a host that does not run any more left its mount behind. Touches no mount. Throws
/// `NSError` when the system's table of mounts cannot be read.
bool isLeftMounted(const HostEntry& host);

/// Takes such a mount away. Throws `NSError` with a text for a person.
void removeLeftMount(const HostEntry& host);

}  // namespace kestrowan::host
