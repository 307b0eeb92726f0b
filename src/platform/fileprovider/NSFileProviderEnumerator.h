#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "platform/fileprovider/NSFileProviderItem.h"
#include "platform/foundation/NSData.h"
#include "platform/foundation/NSError.h"

namespace kestrowan {

/// Opaque bytes of at most 500.
using NSFileProviderPage = NSData;
using NSFileProviderSyncAnchor = NSData;

/// Receives one listing: any number of `didEnumerateItems`, then exactly one of the two ends. Calls
/// come one at a time, from any thread.
class NSFileProviderEnumerationObserver {
 public:
  virtual ~NSFileProviderEnumerationObserver() = default;

  virtual void didEnumerateItems(std::vector<NSFileProviderItemPtr> items) = 0;
  /// `nextPage` is absent when the listing is complete.
  virtual void finishEnumeratingUpToPage(std::optional<NSFileProviderPage> nextPage) = 0;
  virtual void finishEnumeratingWithError(const NSError& error) = 0;
};

/// Receives the changes since an anchor, with the same manners.
class NSFileProviderChangeObserver {
 public:
  virtual ~NSFileProviderChangeObserver() = default;

  virtual void didUpdateItems(std::vector<NSFileProviderItemPtr> items) = 0;
  virtual void didDeleteItems(std::vector<NSFileProviderItemIdentifier> identifiers) = 0;
  virtual void finishEnumeratingChanges(NSFileProviderSyncAnchor upTo, bool moreComing) = 0;
  virtual void finishEnumeratingWithError(const NSError& error) = 0;
};

/// Lists one container. Shared by pointer; usable from every thread. No call blocks.
class NSFileProviderEnumerator {
 public:
  virtual ~NSFileProviderEnumerator() = default;

  virtual void invalidate() = 0;
  /// Lists the container from `page` on; the observer is kept until it has been told the end.
  virtual void enumerateItems(std::shared_ptr<NSFileProviderEnumerationObserver> observer,
                              NSFileProviderPage startingAtPage) = 0;
  virtual void enumerateChanges(std::shared_ptr<NSFileProviderChangeObserver> observer,
                                NSFileProviderSyncAnchor fromSyncAnchor) = 0;
  virtual void currentSyncAnchor(
      std::function<void(std::optional<NSFileProviderSyncAnchor>)> completionHandler) = 0;
};

}  // namespace kestrowan
