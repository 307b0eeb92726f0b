#include "items/FPItem.h"

#include <utility>
#include <vector>

#include "platform/foundation/NSString.h"
#include "webdav/WebDAVClient.h"

namespace kestrowan {

namespace {

constexpr std::string_view kRootFilename = "Kestrowan";
constexpr std::string_view kHomePrefix = "/Home/";

namespace Capability = NSFileProviderItemCapability;
constexpr auto kReading = Capability::allowsReading;
constexpr auto kReadingWriting = kReading | Capability::allowsWriting;
constexpr auto kFull = kReadingWriting | Capability::allowsRenaming | Capability::allowsDeleting;

/// The first piece of `text` between slashes that is not empty; empty when there is none.
std::string_view firstComponent(std::string_view text) {
  const auto start = text.find_first_not_of('/');
  if (start == std::string_view::npos) return {};
  text.remove_prefix(start);
  return text.substr(0, text.find('/'));
}

}  // namespace

FPItem::FPItem(std::string idPath, bool isDir, std::int64_t size, std::string etag,
               std::optional<NSDate> modified)
    : idPath_(std::move(idPath)),
      isDir_(isDir),
      size_(size),
      etag_(std::move(etag)),
      modified_(modified) {}

std::shared_ptr<const FPItem> FPItem::make(const WebDAVEntry& entry) {
  return std::make_shared<const FPItem>(WebDAVClient::normalize(entry.path), entry.isDir,
                                        entry.size, entry.etag, entry.modified);
}

std::string FPItem::path(const NSFileProviderItemIdentifier& forIdentifier) {
  if (forIdentifier == NSFileProviderRootContainerItemIdentifier) return "/";
  return WebDAVClient::normalize(forIdentifier);
}

const std::set<std::string, std::less<>>& FPItem::criticalHomeFolders() {
  static const auto* folders = new std::set<std::string, std::less<>>{
      "Apps",        "Containers",  "Caches",  "AppCache-Archive", "Offloaded",
      "iOS-Backups", "Docker-Data", "Backups", "_pending-delete"};
  return *folders;
}

bool FPItem::isHomeProtected(std::string_view path) {
  const std::string normal = WebDAVClient::normalize(path);
  if (!std::string_view(normal).starts_with(kHomePrefix)) return false;
  const auto folder = firstComponent(std::string_view(normal).substr(kHomePrefix.size()));
  if (folder.empty()) return false;
  return folder.front() == '.' || criticalHomeFolders().contains(folder);
}

NSFileProviderItemIdentifier FPItem::itemIdentifier() const {
  return isRoot() ? NSFileProviderItemIdentifier(NSFileProviderRootContainerItemIdentifier)
                  : idPath_;
}

NSFileProviderItemIdentifier FPItem::parentItemIdentifier() const {
  const NSFileProviderItemIdentifier root(NSFileProviderRootContainerItemIdentifier);
  if (isRoot()) return root;
  const std::string parent = stringByDeletingLastPathComponent(idPath_);
  if (parent.empty() || parent == "/") return root;
  return WebDAVClient::normalize(parent);
}

std::string FPItem::filename() const {
  return isRoot() ? std::string(kRootFilename) : lastPathComponent(idPath_);
}

std::optional<UTType> FPItem::contentType() const {
  if (isDir_) return UTType::folder();
  return UTType::type(pathExtension(idPath_), UTType::data()).value_or(UTType::data());
}

NSFileProviderItemCapabilities FPItem::capabilities() const {
  if (isHomeProtected(idPath_)) return kReading;
  if (isRoot()) return kFull;
  if (isDir_ && stringByDeletingLastPathComponent(idPath_) == "/") return kReadingWriting;
  return kFull;
}

std::optional<std::int64_t> FPItem::documentSize() const {
  if (isDir_) return std::nullopt;
  return size_;
}

std::optional<NSDate> FPItem::contentModificationDate() const {
  return modified_;
}

NSFileProviderItemVersion FPItem::itemVersion() const {
  const std::int64_t seconds = modified_ ? wholeSeconds(modified_->timeIntervalSince1970) : 0;
  const NSData version = etag_ + "|" + std::to_string(seconds) + "|" + std::to_string(size_);
  return {version, version};
}

}  // namespace kestrowan
