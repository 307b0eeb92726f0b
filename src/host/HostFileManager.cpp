#include "host/HostFileManager.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "bridge/FPBridge.h"
#include "host/BridgeAccess.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSString.h"
#include "replica/Options.h"

namespace kestrowan::host {

HostFileManager::HostFileManager(std::shared_ptr<NSFileManager> inner,
                                 std::string temporaryDirectory)
    : inner_(std::move(inner)), temporaryDirectory_(std::move(temporaryDirectory)) {}

std::optional<NSURL> HostFileManager::containerURL(std::string_view group) {
  auto container = inner_->containerURL(group);
  if (container && !isSafeContainer(container->path())) return std::nullopt;
  return container;
}

NSURL HostFileManager::temporaryDirectory() {
  return NSURL::fileURLWithPath(temporaryDirectory_);
}

std::int64_t HostFileManager::reservedCapacity() {
  struct statvfs disk;
  if (::statvfs(temporaryDirectory_.c_str(), &disk) != 0) return 0;
  // What is announced was let in with the whole left free, and so may several at once.
  return replica::freeSpaceFloor(static_cast<std::int64_t>(disk.f_blocks * disk.f_frsize)) / 2;
}

NSData HostFileManager::contents(const NSURL& at) {
  if (lastPathComponent(at.path()) == FPBridge::kConfigFileName) {
    struct stat status;
    if (::lstat(at.path().c_str(), &status) == 0 &&
        (S_ISLNK(status.st_mode) || status.st_uid != ::geteuid())) {
      throw cocoaReadError(EACCES, at.path());
    }
  }
  return inner_->contents(at);
}

bool HostFileManager::createFile(const NSURL& at, std::string_view contents) {
  return inner_->createFile(at, contents);
}

void HostFileManager::moveItem(const NSURL& at, const NSURL& to) {
  inner_->moveItem(at, to);
}

void HostFileManager::removeItem(const NSURL& at) {
  inner_->removeItem(at);
}

std::optional<std::int64_t> HostFileManager::fileSize(const NSURL& of) {
  return inner_->fileSize(of);
}

std::size_t HostFileManager::maximumNameLength(const NSURL& directory) {
  return inner_->maximumNameLength(directory);
}

std::string temporaryDirectoryIn(const std::string& stateDirectory) {
  return stateDirectory + "/temporary";
}

}  // namespace kestrowan::host
