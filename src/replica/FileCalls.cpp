#include "replica/FileCalls.h"

#include <cerrno>
#include <utility>

#include "replica/Life.h"

namespace kestrowan::replica {

using model::ItemNumber;

FileCalls::FileCalls(Life& life) : life_(life) {}

Task<Attributes> FileCalls::lookUp(Rid folder, std::string name) {
  return life_.folders.lookUp(ItemNumber{folder}, std::move(name));
}

Attributes FileCalls::attributes(Rid item) const {
  return life_.files.attributes(ItemNumber{item});
}

Task<Attributes> FileCalls::setAttributes(Rid item, AttributeChange change) {
  return life_.files.setAttributes(ItemNumber{item}, change);
}

Task<std::shared_ptr<const FolderSnapshot>> FileCalls::openFolder(
    Rid folder, std::shared_ptr<const Caller> caller) {
  return life_.folders.open(ItemNumber{folder}, std::move(caller));
}

void FileCalls::closeFolder(Rid folder) {
  life_.folders.close(ItemNumber{folder});
}

void FileCalls::setWatched(const std::vector<Rid>& items, std::chrono::milliseconds interval) {
  std::vector<ItemNumber> numbers;
  numbers.reserve(items.size());
  for (const Rid item : items) numbers.push_back(ItemNumber{item});
  life_.refresher.setWatched(numbers, interval);
}

std::optional<Attributes> FileCalls::known(Rid folder, const std::string& name) const {
  return life_.folders.known(ItemNumber{folder}, name);
}

std::optional<std::vector<FolderStep>> FileCalls::way(Rid folder) const {
  return life_.folders.way(ItemNumber{folder});
}

void FileCalls::remember(Rid item) {
  life_.openItems.remember(ItemNumber{item});
}

void FileCalls::forget(Rid item, std::uint64_t count) {
  life_.openItems.forget(ItemNumber{item}, count);
}

Task<std::shared_ptr<OpenFile>> FileCalls::openFile(Rid item, OpenMode mode) {
  if (mode.write && life_.newWork.isRefused()) throw posixError(EROFS);
  auto opened = life_.files.open(ItemNumber{item}, mode);
  co_return co_await std::move(opened);
}

Task<CreatedFile> FileCalls::createFile(Rid folder, std::string name, std::uint16_t mode) {
  return life_.nameCalls.createFile(ItemNumber{folder}, std::move(name), mode);
}

Task<Attributes> FileCalls::makeFolder(Rid folder, std::string name, std::uint16_t mode) {
  return life_.nameCalls.makeFolder(ItemNumber{folder}, std::move(name), mode);
}

Task<void> FileCalls::removeFile(Rid folder, std::string name) {
  return life_.nameCalls.removeFile(ItemNumber{folder}, std::move(name));
}

Task<void> FileCalls::removeFolder(Rid folder, std::string name) {
  return life_.nameCalls.removeFolder(ItemNumber{folder}, std::move(name));
}

Task<void> FileCalls::rename(Rid folder, std::string name, Rid newFolder, std::string newName,
                             bool replace) {
  return life_.nameCalls.rename({{ItemNumber{folder}, std::move(name)},
                                 {ItemNumber{newFolder}, std::move(newName)},
                                 replace});
}

Task<void> FileCalls::flush(std::shared_ptr<OpenFile> file) {
  return life_.files.flush(std::move(file));
}

Task<void> FileCalls::fsync(std::shared_ptr<OpenFile> file) {
  return life_.files.fsync(std::move(file));
}

void FileCalls::fsyncFolder(Rid) {
  life_.fsyncFolder();
}

std::string FileCalls::userAttribute(Rid item, std::string_view name) const {
  return life_.files.userAttribute(ItemNumber{item}, name);
}

std::vector<std::string> FileCalls::userAttributes(Rid item) const {
  return life_.files.userAttributes(ItemNumber{item});
}

void FileCalls::setUserAttribute(Rid item, std::string_view name, std::string_view value,
                                 SetMode mode) {
  life_.files.setUserAttribute(ItemNumber{item}, name, value, mode);
}

void FileCalls::removeUserAttribute(Rid item, std::string_view name) {
  life_.files.removeUserAttribute(ItemNumber{item}, name);
}

std::int64_t FileCalls::allocated(const Attributes& attributes) const {
  return life_.contentFiles.allocated(attributes.content).value_or(attributes.size);
}

ContentFiles::Space FileCalls::space() const {
  return life_.contentFiles.space();
}

}  // namespace kestrowan::replica
