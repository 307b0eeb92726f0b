#include "extension/FileProviderExtensionWrite.h"

#include <utility>

#include "webdav/WebDAVClient.h"

namespace kestrowan {

bool isFolder(const NSFileProviderItem& item) {
  return item.contentType() == UTType::folder();
}

std::shared_ptr<const FPItem> writtenItem(std::string_view path, bool isDir,
                                          const std::optional<WebDAVEntry>& entry,
                                          std::string_view wordWithoutEntry) {
  return std::make_shared<const FPItem>(
      WebDAVClient::normalize(path), isDir, entry ? entry->size : 0,
      entry ? entry->etag : std::string(wordWithoutEntry), entry ? entry->modified : std::nullopt);
}

void completeWithError(const WriteCompletion& completionHandler, NSFileProviderItemPtr item,
                       const NSError& error) {
  completionHandler(std::move(item), 0, false, error);
}

}  // namespace kestrowan
