#include "support/MemoryItems.h"

#include <utility>

#include "platform/foundation/NSString.h"

namespace kestrowan::test {

namespace {

constexpr std::string_view kOpaquePrefix = "node:";

NSFileProviderItemVersion versionFrom(std::string_view tag, std::int64_t date, std::int64_t size) {
  const NSData version = std::string(tag) + "|" + std::to_string(date) + "|" + std::to_string(size);
  return {version, version};
}

}  // namespace

std::optional<std::string> MemoryItems::path(const NSFileProviderItemIdentifier& identifier) const {
  if (identifier == NSFileProviderRootContainerItemIdentifier) return "/";
  if (!options_.opaqueIdentifiers) {
    // As a server's URL, everything that does not begin with a slash is the root's.
    if (!identifier.starts_with('/')) return "/";
    auto path = identifier;
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
  }
  if (!identifier.starts_with(kOpaquePrefix)) return std::nullopt;
  const auto number = int64FromText(identifier.substr(kOpaquePrefix.size()));
  if (!number) return std::nullopt;
  return server_->pathOf(static_cast<std::uint64_t>(*number));
}

std::string MemoryItems::childPath(std::string_view folder, std::string_view name) {
  std::string path(folder == "/" ? "" : folder);
  return path.append("/").append(name);
}

bool MemoryItems::isProtected(std::string_view path) const {
  return options_.isProtected && options_.isProtected(path);
}

NSFileProviderItemIdentifier MemoryItems::identifier(std::uint64_t number,
                                                     const std::string& path) const {
  if (path == "/") return std::string(NSFileProviderRootContainerItemIdentifier);
  return options_.opaqueIdentifiers ? std::string(kOpaquePrefix) + std::to_string(number) : path;
}

NSFileProviderItemIdentifier MemoryItems::folderIdentifier(const std::string& path) const {
  const auto entry = server_->stat(path);
  return identifier(entry ? entry->number : 0, path);
}

std::shared_ptr<MemoryItem> MemoryItems::named(const std::string& path, bool isFolder) const {
  auto item = std::make_shared<MemoryItem>();
  item->parent = folderIdentifier(stringByDeletingLastPathComponent(path));
  item->name = path == "/" ? "Memory" : lastPathComponent(path);
  item->isFolder = isFolder;
  if (isProtected(path)) item->allowed = NSFileProviderItemCapability::allowsReading;
  return item;
}

NSFileProviderItemPtr MemoryItems::root() const {
  return itemWithoutEntry("/", true, "root", 0);
}

NSFileProviderItemPtr MemoryItems::item(const ServerEntry& entry) const {
  auto item = named(entry.path, entry.isFolder);
  item->identifier = identifier(entry.number, entry.path);
  if (!entry.isFolder) item->size = entry.size;
  item->date = NSDate{static_cast<double>(entry.date)};
  if (options_.opaqueIdentifiers) {
    // Bytes that are no text, and no empty piece of one either.
    const std::string revision = std::string("\xFF\0", 2) + std::to_string(entry.revision);
    item->version = {revision, revision + entry.name};
  } else {
    const std::string strength = options_.isWeak && options_.isWeak(entry.path) ? "W/e" : "e";
    item->version = versionFrom(strength + std::to_string(entry.revision), entry.date, entry.size);
  }
  return item;
}

NSFileProviderItemPtr MemoryItems::itemWithoutEntry(const std::string& path, bool isFolder,
                                                    std::string_view word,
                                                    std::int64_t size) const {
  auto item = named(path, isFolder);
  item->identifier = folderIdentifier(path);
  if (!isFolder) item->size = size;
  item->version = versionFrom(word, 0, size);
  return item;
}

}  // namespace kestrowan::test
