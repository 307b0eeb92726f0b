#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "cli/ExitCode.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::cli {

/// Why there is no usable bridge file, with the place where it was looked for; nothing when there
/// is one.
std::optional<std::string> bridgeProblem();

struct Explanation {
  ExitCode exitCode;
  /// For a person: what happened, and what to do next.
  std::string text;
};

/// What the failure of a request about `path` means.
Explanation explain(std::string_view path, const NSError& error);

}  // namespace kestrowan::cli
