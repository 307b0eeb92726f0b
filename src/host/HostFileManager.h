#pragma once

#include <memory>
#include <string>

#include "host/GuardedFileManager.h"

namespace kestrowan::host {

/// The local files of a mount's process: guarded, and with a temporary directory of the host's own.
/// Usable from every thread.
class HostFileManager : public GuardedFileManager {
 public:
  /// `temporaryDirectory` is absolute, private, and there whenever files are made in it.
  HostFileManager(std::shared_ptr<NSFileManager> inner, std::string temporaryDirectory);

  NSURL temporaryDirectory() override;
  std::int64_t reservedCapacity() override;

 private:
  const std::string temporaryDirectory_;
};

/// The host's directory of temporary files inside its state directory.
std::string temporaryDirectoryIn(const std::string& stateDirectory);

}  // namespace kestrowan::host
