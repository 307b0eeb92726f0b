#pragma once

#include "platform/foundation/Logger.h"

namespace kestrowan {

/// The module's one logger. Made on first use; usable from every thread.
const Logger& fpLog();

}  // namespace kestrowan
