#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "replica/Options.h"

namespace kestrowan::host {

/// How one domain is to be hosted. Paths are absolute.
struct HostSettings {
  std::string domain;
  std::string stateDirectory;
  std::string mountPoint;
  /// The container's directory, without symbolic links; it need not be there.
  std::string container;
  /// The domain and the state directory are those that the container has by itself.
  bool isOwnDomain = false;
  /// The state is to be the container's, whatever it was made for.
  bool moveHere = false;
  /// What a command that mounts in the same way says besides, as words of a command line.
  std::vector<std::string> options;
  /// How long an orderly end waits for changes to be sent.
  std::chrono::seconds drain{30};
  bool noexec = false;
  /// Whether the root shows files that keep indexers away.
  bool noIndex = false;
  /// Patterns of names of programs that work in the background, besides those that are known.
  std::vector<std::string> backgroundPrograms;
  /// Whether programs that watch folders learn of changes at the server.
  bool events = true;
  /// Whether the extension's own log is shown.
  bool extensionLog = false;
  /// Once it serves, the host writes to the file "log" in the state directory instead of standard
  /// error.
  bool logsToFile = false;
  /// Without what the host sets itself: the names that are refused, and the machine's name.
  replica::Options replica;
};

}  // namespace kestrowan::host
