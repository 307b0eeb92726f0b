#pragma once

#include <string>

#include "cli/ExitCode.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::cli {

/// Reports that a command failed: `error` as {"error": …} on standard output when `json` is wanted,
/// else `text` on standard error. Throws `OutputUnwritable`.
void reportFailure(bool json, const std::string& text, const NSError& error);

/// What stands in JSON for a failure that is the command's own: domain "kestrowan", the exit code,
/// and `text`.
NSError commandError(ExitCode code, const std::string& text);

}  // namespace kestrowan::cli
