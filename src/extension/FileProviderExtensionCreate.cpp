#include <utility>

#include "extension/FileProviderExtension.h"
#include "extension/FileProviderExtensionWrite.h"
#include "extension/fpLog.h"
#include "platform/fileprovider/NSFileProviderError.h"

namespace kestrowan {

namespace {

Task<void> create(std::shared_ptr<WebDAVClient> client, std::string path, bool isDir,
                  std::optional<NSURL> contents, WriteCompletion completionHandler) {
  NSFileProviderItemPtr item;
  std::optional<NSError> failure;
  try {
    if (isDir) {
      co_await client->mkcol(path);
    } else {
      NSURL source = contents ? *contents : FileProviderExtension::emptyTempFile();
      co_await client->put(path, std::move(source));
    }
    const auto entry = co_await client->stat(path);
    item = writtenItem(path, isDir, entry, "new");
  } catch (const NSError& error) {
    fpLog().error("createItem %{public}s failed: %{public}s", {path, error.localizedDescription()});
    failure = error;
  }
  completionHandler(std::move(item), 0, false, std::move(failure));
}

}  // namespace

std::shared_ptr<NSProgress> FileProviderExtension::createItem(NSFileProviderItemPtr basedOnTemplate,
                                                              NSFileProviderItemFields,
                                                              std::optional<NSURL> contents,
                                                              NSFileProviderCreateItemOptions,
                                                              const NSFileProviderRequest&,
                                                              WriteCompletion completionHandler) {
  auto progress = std::make_shared<NSProgress>();
  if (!client_) {
    completeWithError(completionHandler, nullptr,
                      NSFileProviderError(NSFileProviderErrorCode::notAuthenticated));
    return progress;
  }
  const std::string filename = basedOnTemplate->filename();
  if (!validName(filename)) {
    completeWithError(completionHandler, nullptr, permDenied());
    return progress;
  }
  const bool isDir = isFolder(*basedOnTemplate);
  std::string path = childPath(basedOnTemplate->parentItemIdentifier(), filename);
  if (FPItem::isHomeProtected(path)) {
    completeWithError(completionHandler, nullptr, permDenied());
    return progress;
  }
  startDetached(
      create(client_, std::move(path), isDir, std::move(contents), std::move(completionHandler)));
  return progress;
}

}  // namespace kestrowan
