#include <utility>

#include "extension/FileProviderExtension.h"
#include "extension/FileProviderExtensionWrite.h"
#include "extension/fpLog.h"
#include "platform/fileprovider/NSFileProviderError.h"

namespace kestrowan {

namespace {

constexpr NSFileProviderItemFields kFieldsThatMove =
    NSFileProviderItemField::filename | NSFileProviderItemField::parentItemIdentifier;

struct Modification {
  std::string current;
  std::string target;
  bool isDir;
  NSFileProviderItemFields changedFields;
  std::optional<NSURL> contents;
};

Task<void> modify(std::shared_ptr<WebDAVClient> client, Modification change,
                  WriteCompletion completionHandler) {
  NSFileProviderItemPtr item;
  std::optional<NSError> failure;
  std::string& current = change.current;
  try {
    if ((change.changedFields & kFieldsThatMove) != 0 && change.target != current) {
      co_await client->move(current, change.target);
      current = change.target;
    }
    if ((change.changedFields & NSFileProviderItemField::contents) != 0 && change.contents &&
        !change.isDir) {
      co_await client->put(current, *change.contents);
    }
    const auto entry = co_await client->stat(current);
    item = writtenItem(current, change.isDir, entry, "modified");
  } catch (const NSError& error) {
    fpLog().error("modifyItem %{public}s failed: %{public}s",
                  {current, error.localizedDescription()});
    failure = error;
  }
  completionHandler(std::move(item), 0, false, std::move(failure));
}

}  // namespace

std::shared_ptr<NSProgress> FileProviderExtension::modifyItem(
    NSFileProviderItemPtr item, const NSFileProviderItemVersion&,
    NSFileProviderItemFields changedFields, std::optional<NSURL> contents,
    NSFileProviderModifyItemOptions, const NSFileProviderRequest&,
    WriteCompletion completionHandler) {
  auto progress = std::make_shared<NSProgress>();
  if (!client_) {
    completeWithError(completionHandler, std::move(item),
                      NSFileProviderError(NSFileProviderErrorCode::notAuthenticated));
    return progress;
  }
  const std::string filename = item->filename();
  Modification change{.current = FPItem::path(item->itemIdentifier()),
                      .target = childPath(item->parentItemIdentifier(), filename),
                      .isDir = isFolder(*item),
                      .changedFields = changedFields,
                      .contents = std::move(contents)};
  // Protection comes before the name: both are refused with the same error, but a name that is
  // invalid in a protected folder is first of all protected.
  if (FPItem::isHomeProtected(change.current) || FPItem::isHomeProtected(change.target) ||
      !validName(filename)) {
    completeWithError(completionHandler, nullptr, permDenied());
    return progress;
  }
  startDetached(modify(client_, std::move(change), std::move(completionHandler)));
  return progress;
}

}  // namespace kestrowan
