#pragma once

#include <chrono>
#include <string>

#include "replica/Options.h"

namespace kestrowan::host {

/// How one domain is to be hosted. Paths are absolute.
struct HostSettings {
  std::string domain;
  std::string stateDirectory;
  std::string mountPoint;
  /// How long an orderly end waits for changes to be sent.
  std::chrono::seconds drain{30};
  bool noexec = false;
  /// Whether the extension's own log is shown.
  bool extensionLog = false;
  /// Once it serves, the host writes to the file "log" in the state directory instead of standard
  /// error.
  bool logsToFile = false;
  /// Without what the host sets itself: the names that are refused, and the machine's name.
  replica::Options replica;
};

}  // namespace kestrowan::host
