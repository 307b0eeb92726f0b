#pragma once

#include <string>

namespace kestrowan::cli {

/// Asks a question that is answered with yes or no, on a terminal. Throws `UsageError` with the
/// text `without` where there is none.
bool confirmedOnTerminal(const std::string& question, const std::string& without);

}  // namespace kestrowan::cli
