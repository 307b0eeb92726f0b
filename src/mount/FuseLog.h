#pragma once

#include <string>

namespace kestrowan::mount {

/// Sends libfuse's error messages to the log from now on, process-wide.
void installFuseLog();

/// The latest of them, without the line's end; empty when there was none since the last call.
std::string takeFuseMessage();

}  // namespace kestrowan::mount
