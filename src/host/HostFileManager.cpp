#include "host/HostFileManager.h"

#include <sys/statvfs.h>

#include <utility>

#include "host/DomainChoice.h"
#include "replica/Options.h"

namespace kestrowan::host {

HostFileManager::HostFileManager(std::shared_ptr<NSFileManager> inner,
                                 std::string temporaryDirectory, std::string container)
    : GuardedFileManager(std::move(inner)),
      temporaryDirectory_(std::move(temporaryDirectory)),
      container_(std::move(container)) {}

std::optional<NSURL> HostFileManager::containerURL(std::string_view group) {
  auto found = GuardedFileManager::containerURL(group);
  if (found && withoutLinks(found->path()) != container_) return std::nullopt;
  return found;
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

std::string temporaryDirectoryIn(const std::string& stateDirectory) {
  return stateDirectory + "/temporary";
}

}  // namespace kestrowan::host
