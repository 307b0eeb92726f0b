#pragma once

#include <chrono>
#include <string>

#include "platform/foundation/JSONValue.h"

namespace kestrowan::host {

/// Sends one request to the host behind the socket at `path` and gives its answer. Blocks; usable
/// from every thread. Throws `NSError`: ECONNREFUSED when no host answers there, EACCES when
/// somebody else's does, ETIMEDOUT when there is no whole answer within `limit`, ECONNRESET when
/// the host ended before it answered; and the answer itself when that is an error.
JSONValue askHost(const std::string& path, const JSONValue& request,
                  std::chrono::milliseconds limit);

}  // namespace kestrowan::host
