#include <utility>

#include "extension/FileProviderExtension.h"
#include "extension/fpLog.h"
#include "items/FPItem.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/NSFileManager.h"

namespace kestrowan {

namespace {

constexpr std::int64_t kFetchUnits = 100;

Task<void> lookUp(std::shared_ptr<WebDAVClient> client, std::string path,
                  ItemCompletion completionHandler) {
  NSFileProviderItemPtr item;
  std::optional<NSError> failure;
  try {
    const auto entry = co_await client->stat(std::move(path));
    if (entry) {
      item = FPItem::make(*entry);
    } else {
      failure = NSFileProviderError(NSFileProviderErrorCode::noSuchItem);
    }
  } catch (const NSError& error) {
    failure = error;
  }
  completionHandler(std::move(item), std::move(failure));
}

/// The entry of `path`, or nothing for whatever reason.
Task<std::optional<WebDAVEntry>> statIgnoringErrors(std::shared_ptr<WebDAVClient> client,
                                                    std::string path) {
  try {
    co_return co_await client->stat(std::move(path));
  } catch (const NSError&) {
    co_return std::nullopt;
  }
}

Task<void> fetch(std::shared_ptr<WebDAVClient> client, std::string path,
                 std::shared_ptr<NSProgress> progress, FetchCompletion completionHandler) {
  std::optional<NSURL> file;
  std::optional<NSError> failure;
  try {
    file = co_await client->download(path);
  } catch (const NSError& error) {
    fpLog().error("fetch %{public}s failed: %{public}s", {path, error.localizedDescription()});
    failure = error;
  }
  if (failure) {
    completionHandler(std::nullopt, nullptr, std::move(failure));
    co_return;
  }
  const auto entry = co_await statIgnoringErrors(client, path);
  const std::int64_t localSize = NSFileManager::defaultManager()->fileSize(*file).value_or(0);
  auto item = std::make_shared<const FPItem>(
      WebDAVClient::normalize(path), false, entry ? entry->size : localSize,
      entry ? entry->etag : "downloaded", entry ? entry->modified : std::nullopt);
  progress->setCompletedUnitCount(kFetchUnits);
  completionHandler(std::move(file), std::move(item), std::nullopt);
}

}  // namespace

std::shared_ptr<NSProgress> FileProviderExtension::item(
    const NSFileProviderItemIdentifier& forIdentifier, const NSFileProviderRequest&,
    ItemCompletion completionHandler) {
  auto progress = std::make_shared<NSProgress>();
  if (forIdentifier == NSFileProviderRootContainerItemIdentifier) {
    completionHandler(
        std::make_shared<const FPItem>(WebDAVClient::normalize("/"), true, 0, "root", std::nullopt),
        std::nullopt);
    return progress;
  }
  if (!client_) {
    completionHandler(nullptr, NSFileProviderError(NSFileProviderErrorCode::notAuthenticated));
    return progress;
  }
  startDetached(lookUp(client_, FPItem::path(forIdentifier), std::move(completionHandler)));
  return progress;
}

std::shared_ptr<NSProgress> FileProviderExtension::fetchContents(
    const NSFileProviderItemIdentifier& forIdentifier,
    const std::optional<NSFileProviderItemVersion>&, const NSFileProviderRequest&,
    FetchCompletion completionHandler) {
  if (!client_) {
    completionHandler(std::nullopt, nullptr,
                      NSFileProviderError(NSFileProviderErrorCode::notAuthenticated));
    return std::make_shared<NSProgress>();
  }
  auto progress = std::make_shared<NSProgress>(kFetchUnits);
  startDetached(
      fetch(client_, FPItem::path(forIdentifier), progress, std::move(completionHandler)));
  return progress;
}

}  // namespace kestrowan
