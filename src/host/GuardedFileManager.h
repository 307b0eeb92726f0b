#pragma once

#include <memory>

#include "platform/foundation/NSFileManager.h"

namespace kestrowan::host {

/// The local files of a process that reads the bridge file: those of another file manager, but with
/// a container and a bridge file that must be the user's own (host/BridgeAccess.h). A container
/// that is refused is none, and a bridge file that is refused cannot be read. Usable from every
/// thread.
class GuardedFileManager : public NSFileManager {
 public:
  explicit GuardedFileManager(std::shared_ptr<NSFileManager> inner);

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
};

}  // namespace kestrowan::host
