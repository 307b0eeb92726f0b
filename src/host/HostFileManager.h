#pragma once

#include <memory>
#include <string>

#include "host/GuardedFileManager.h"

namespace kestrowan::host {

/// The local files of a mount's process: guarded, with a temporary directory of the host's own, and
/// with one container alone. A symbolic link that takes the container's place, or that of a folder
/// above it, leads to another one, which counts as none. Usable from every thread.
class HostFileManager : public GuardedFileManager {
 public:
  /// `temporaryDirectory` is absolute, private, and there whenever files are made in it.
  /// `container` is absolute and without symbolic links.
  HostFileManager(std::shared_ptr<NSFileManager> inner, std::string temporaryDirectory,
                  std::string container);

  std::optional<NSURL> containerURL(std::string_view group) override;
  NSURL temporaryDirectory() override;
  std::int64_t reservedCapacity() override;

 private:
  const std::string temporaryDirectory_;
  const std::string container_;
};

/// The host's directory of temporary files inside its state directory.
std::string temporaryDirectoryIn(const std::string& stateDirectory);

}  // namespace kestrowan::host
