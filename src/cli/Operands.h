#pragma once

#include <functional>
#include <string>
#include <vector>

#include "cli/ExitCode.h"

namespace kestrowan::cli {

/// Does `action` with each operand, whatever becomes of the others: it reports its own failure.
/// Gives `done` when each was done, the first one's code when none was, else `partlyFailed`.
ExitCode forEach(const std::vector<std::string>& operands,
                 const std::function<ExitCode(const std::string& operand)>& action);

}  // namespace kestrowan::cli
