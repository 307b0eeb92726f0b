#include "macos/GroupContainer.h"

#include <utility>

#include "macos/Convert.h"

namespace kestrowan::macos {

GroupContainer::GroupContainer(std::shared_ptr<NSFileManager> files) : files_(std::move(files)) {}

std::optional<NSURL> GroupContainer::containerURL(std::string_view group) {
  @autoreleasepool {
    ::NSFileManager* manager = [::NSFileManager defaultManager];
    return coreURL(
        [manager containerURLForSecurityApplicationGroupIdentifier:platformString(group)]);
  }
}

NSURL GroupContainer::temporaryDirectory() {
  @autoreleasepool {
    return NSURL::fileURLWithPath(coreString([NSTemporaryDirectory() stringByStandardizingPath]));
  }
}

NSData GroupContainer::contents(const NSURL& at) {
  return files_->contents(at);
}

bool GroupContainer::createFile(const NSURL& at, std::string_view contents) {
  return files_->createFile(at, contents);
}

void GroupContainer::moveItem(const NSURL& at, const NSURL& to) {
  files_->moveItem(at, to);
}

void GroupContainer::removeItem(const NSURL& at) {
  files_->removeItem(at);
}

std::optional<std::int64_t> GroupContainer::fileSize(const NSURL& of) {
  return files_->fileSize(of);
}

std::size_t GroupContainer::maximumNameLength(const NSURL& directory) {
  return files_->maximumNameLength(directory);
}

}  // namespace kestrowan::macos
