#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "cli/ExitCode.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::cli {

struct Explanation {
  ExitCode exitCode;
  /// For a person: what happened, and what to do next.
  std::string text;
};

/// Whether the error of a transfer is about the local file rather than the one on the server.
bool isAboutLocalFile(const NSError& error);

/// What the failure of a request about `path` means. `known`: what is known of the item instead.
Explanation explain(std::string_view path, const NSError& error,
                    const std::optional<std::string>& known = std::nullopt);

}  // namespace kestrowan::cli
