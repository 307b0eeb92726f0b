#pragma once

#include <memory>
#include <string>

#include "platform/fileprovider/NSFileProviderEnumerator.h"
#include "webdav/WebDAVClient.h"

namespace kestrowan {

/// Lists one folder of the server's tree, whole and in one page, anew with each request. Tracks no
/// changes. Shared by pointer, kept alive by a listing in flight; usable from every thread.
class DAVEnumerator : public NSFileProviderEnumerator,
                      public std::enable_shared_from_this<DAVEnumerator> {
 public:
  DAVEnumerator() = delete;
  /// `client` may be null: then every listing fails with `notAuthenticated`.
  DAVEnumerator(const NSFileProviderItemIdentifier& container,
                std::shared_ptr<WebDAVClient> client);

  void invalidate() override;
  /// Fails at once without a client; else lists in the background, logs a failure and hands it on
  /// as it is. The page is ignored.
  void enumerateItems(std::shared_ptr<NSFileProviderEnumerationObserver> observer,
                      NSFileProviderPage startingAtPage) override;
  /// Always ends with `syncAnchorExpired`.
  void enumerateChanges(std::shared_ptr<NSFileProviderChangeObserver> observer,
                        NSFileProviderSyncAnchor fromSyncAnchor) override;
  /// Answers at once, with an anchor that changes every 30 seconds.
  void currentSyncAnchor(
      std::function<void(std::optional<NSFileProviderSyncAnchor>)> completionHandler) override;

  /// The anchor at a time in seconds since 1970-01-01 UTC; fatal outside the signed 64-bit range.
  static NSFileProviderSyncAnchor syncAnchor(NSDate at);

 private:
  static Task<void> listItems(std::shared_ptr<DAVEnumerator> self,
                              std::shared_ptr<NSFileProviderEnumerationObserver> observer);

  const std::string containerPath_;
  const std::shared_ptr<WebDAVClient> client_;
};

}  // namespace kestrowan
