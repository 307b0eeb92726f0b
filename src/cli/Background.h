#pragma once

#include <optional>
#include <string>

#include "cli/ExitCode.h"
#include "platform/base/UniqueFd.h"

namespace kestrowan::cli {

/// The half of the process that goes on in the background, while the half that was started waits
/// for word from it and then ends. Made before the process has other threads.
class Background {
 public:
  /// Divides the process. In the half that was started: waits, and gives the exit code to end
  /// with, 0 once the other half is ready, else the other half's own. In the other half, which has
  /// a session of its own and "/" as its directory: nothing.
  std::optional<ExitCode> divide();

  /// Tells the waiting half that all is well; whether it was still there to hear it. Once.
  bool ready();

 private:
  UniqueFd toParent_;
};

}  // namespace kestrowan::cli
