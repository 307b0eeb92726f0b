#pragma once

#include <string>

#include "platform/network/FinishedTransfers.h"

namespace kestrowan::host {

/// What the log says of a request that has ended: method, path, status, bytes and time, on one
/// line, and nothing that it or its answer contained. Pure.
std::string traceLine(const FinishedTransfer& transfer);

/// From now on each request of this process is a line of the host's log when it has ended.
void traceRequests();

}  // namespace kestrowan::host
