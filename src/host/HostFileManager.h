#pragma once

#include <memory>
#include <string>

#include "platform/foundation/NSFileManager.h"

namespace kestrowan::host {

/// The local files of a host's process: those of another file manager, but with a temporary
/// directory of the host's own, and with a container that must be the user's own. A container that
/// belongs to somebody else, or in which others may write, is taken for none, since whoever writes
/// there chooses the server; a bridge file that is a symbolic link or somebody else's cannot be
/// read. Usable from every thread.
class HostFileManager : public NSFileManager {
 public:
  /// `temporaryDirectory` is absolute, private, and there whenever files are made in it.
  HostFileManager(std::shared_ptr<NSFileManager> inner, std::string temporaryDirectory);

  std::optional<NSURL> containerURL(std::string_view group) override;
  NSURL temporaryDirectory() override;
  std::int64_t reservedCapacity() override;
  NSData contents(const NSURL& at) override;
  bool createFile(const NSURL& at, std::string_view contents) override;
  void moveItem(const NSURL& at, const NSURL& to) override;
  void removeItem(const NSURL& at) override;
  std::optional<std::int64_t> fileSize(const NSURL& of) override;
  std::size_t maximumNameLength(const NSURL& directory) override;

 private:
  const std::shared_ptr<NSFileManager> inner_;
  const std::string temporaryDirectory_;
};

/// The host's directory of temporary files inside its state directory.
std::string temporaryDirectoryIn(const std::string& stateDirectory);

}  // namespace kestrowan::host
