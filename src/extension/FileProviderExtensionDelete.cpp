#include <utility>

#include "extension/FileProviderExtension.h"
#include "extension/fpLog.h"
#include "items/FPItem.h"
#include "platform/fileprovider/NSFileProviderError.h"

namespace kestrowan {

namespace {

Task<void> deletePath(std::shared_ptr<WebDAVClient> client, std::string path,
                      DeleteCompletion completionHandler) {
  std::optional<NSError> failure;
  try {
    co_await client->delete_(path);
  } catch (const NSError& error) {
    fpLog().error("deleteItem %{public}s failed: %{public}s", {path, error.localizedDescription()});
    failure = error;
  }
  completionHandler(std::move(failure));
}

}  // namespace

std::shared_ptr<NSProgress> FileProviderExtension::deleteItem(
    const NSFileProviderItemIdentifier& identifier, const NSFileProviderItemVersion&,
    NSFileProviderDeleteItemOptions, const NSFileProviderRequest&,
    DeleteCompletion completionHandler) {
  auto progress = std::make_shared<NSProgress>();
  if (!client_) {
    completionHandler(NSFileProviderError(NSFileProviderErrorCode::notAuthenticated));
    return progress;
  }
  std::string path = FPItem::path(identifier);
  if (FPItem::isHomeProtected(path)) {
    completionHandler(permDenied());
    return progress;
  }
  startDetached(deletePath(client_, std::move(path), std::move(completionHandler)));
  return progress;
}

}  // namespace kestrowan
