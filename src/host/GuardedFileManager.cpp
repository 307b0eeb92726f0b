#include "host/GuardedFileManager.h"

#include <utility>

#include "bridge/FPBridge.h"
#include "host/BridgeAccess.h"
#include "mount/PathTrust.h"
#include "platform/foundation/FileContents.h"
#include "platform/foundation/NSString.h"

namespace kestrowan::host {

GuardedFileManager::GuardedFileManager(std::shared_ptr<NSFileManager> inner)
    : inner_(std::move(inner)) {}

std::optional<NSURL> GuardedFileManager::containerURL(std::string_view group) {
  auto container = inner_->containerURL(group);
  if (container && folderFault(container->path())) return std::nullopt;
  return container;
}

NSURL GuardedFileManager::temporaryDirectory() {
  return inner_->temporaryDirectory();
}

std::int64_t GuardedFileManager::reservedCapacity() {
  return inner_->reservedCapacity();
}

NSData GuardedFileManager::contents(const NSURL& at) {
  if (lastPathComponent(at.path()) != FPBridge::kConfigFileName) return inner_->contents(at);
  return fileContents(openBridgeFile(at.path()), at.path());
}

bool GuardedFileManager::createFile(const NSURL& at, std::string_view contents) {
  return inner_->createFile(at, contents);
}

void GuardedFileManager::moveItem(const NSURL& at, const NSURL& to) {
  inner_->moveItem(at, to);
}

void GuardedFileManager::removeItem(const NSURL& at) {
  inner_->removeItem(at);
}

std::optional<std::int64_t> GuardedFileManager::fileSize(const NSURL& of) {
  return inner_->fileSize(of);
}

std::size_t GuardedFileManager::maximumNameLength(const NSURL& directory) {
  return inner_->maximumNameLength(directory);
}

}  // namespace kestrowan::host
