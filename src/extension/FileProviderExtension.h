#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/fileprovider/NSFileProviderReplicatedExtension.h"
#include "webdav/WebDAVClient.h"

namespace kestrowan {

/// The provider of one domain: projects the tree that the host application serves.
///
/// The bridge file is read once, by the constructor; without a usable one the object lives on with
/// no client, and every request but the lookup of the root fails with `notAuthenticated`. Holds no
/// other state, so its entry points may be called from every thread at once. Refusals that need no
/// server complete before the entry point returns; everything else completes on an executor
/// thread, also after the object is gone. Server failures are handed on as they are.
class FileProviderExtension : public NSFileProviderReplicatedExtension {
 public:
  /// Never throws for a missing or broken bridge file; logs one line instead.
  explicit FileProviderExtension(NSFileProviderDomain domain);

  /// Does nothing: requests in flight go on, and further ones are answered as before.
  void invalidate() override;

  /// A `DAVEnumerator`, for whatever identifier, with or without a client.
  std::shared_ptr<NSFileProviderEnumerator> enumerator(
      const NSFileProviderItemIdentifier& forContainer,
      const NSFileProviderRequest& request) override;

  /// Looks an item up. The root is answered without the server; a missing item is the failure of
  /// the server's status, `noSuchItem` only a reply that held no entry.
  std::shared_ptr<NSProgress> item(const NSFileProviderItemIdentifier& forIdentifier,
                                   const NSFileProviderRequest& request,
                                   ItemCompletion completionHandler) override;

  /// Downloads, then asks for fresh metadata; when that fails the item describes the local file.
  /// The progress counts 0 of 100, then 100 of 100.
  std::shared_ptr<NSProgress> fetchContents(const NSFileProviderItemIdentifier& forIdentifier,
                                            const std::optional<NSFileProviderItemVersion>& version,
                                            const NSFileProviderRequest& request,
                                            FetchCompletion completionHandler) override;

  /// Makes a folder, or a file with `contents` (empty when there are none).
  std::shared_ptr<NSProgress> createItem(NSFileProviderItemPtr basedOnTemplate,
                                         NSFileProviderItemFields fields,
                                         std::optional<NSURL> contents,
                                         NSFileProviderCreateItemOptions options,
                                         const NSFileProviderRequest& request,
                                         WriteCompletion completionHandler) override;

  /// Moves, then uploads to the new place, then asks for the result. Nothing is undone when a later
  /// step fails. Fields other than name, parent and contents are taken as applied.
  std::shared_ptr<NSProgress> modifyItem(NSFileProviderItemPtr item,
                                         const NSFileProviderItemVersion& baseVersion,
                                         NSFileProviderItemFields changedFields,
                                         std::optional<NSURL> contents,
                                         NSFileProviderModifyItemOptions options,
                                         const NSFileProviderRequest& request,
                                         WriteCompletion completionHandler) override;

  /// Deletes an item, a folder with all that is in it, in one request.
  std::shared_ptr<NSProgress> deleteItem(const NSFileProviderItemIdentifier& identifier,
                                         const NSFileProviderItemVersion& baseVersion,
                                         NSFileProviderDeleteItemOptions options,
                                         const NSFileProviderRequest& request,
                                         DeleteCompletion completionHandler) override;

  /// The one error object with which protected paths and invalid names are refused.
  static const NSError& permDenied();
  /// The server path of a child; `name` is taken as it is.
  static std::string childPath(const NSFileProviderItemIdentifier& parent, std::string_view name);
  /// Whether a name may reach the server: not empty, ".", ".." or with a "/" in it.
  static bool validName(std::string_view name);
  /// A new empty file in the temporary directory, which stays there. The URL is given also when
  /// the file could not be made.
  static NSURL emptyTempFile();

 private:
  const NSFileProviderDomain domain_;
  const std::shared_ptr<WebDAVClient> client_;  // null when unconfigured
};

}  // namespace kestrowan
