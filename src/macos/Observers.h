#pragma once

#include "platform/fileprovider/NSFileProviderEnumerator.h"

#import <FileProvider/FileProvider.h>

#include "macos/Retained.h"

namespace kestrowan::macos {

/// Hands a listing of the module to an observer of the platform, which it keeps alive.
class EnumerationObserver : public NSFileProviderEnumerationObserver {
 public:
  explicit EnumerationObserver(id<NSFileProviderEnumerationObserver> observer)
      : observer_(observer) {}

  void didEnumerateItems(std::vector<NSFileProviderItemPtr> items) override;
  void finishEnumeratingUpToPage(std::optional<NSFileProviderPage> nextPage) override;
  void finishEnumeratingWithError(const NSError& error) override;

 private:
  const Retained<id<NSFileProviderEnumerationObserver>> observer_;
};

/// The same for changes.
class ChangeObserver : public NSFileProviderChangeObserver {
 public:
  explicit ChangeObserver(id<NSFileProviderChangeObserver> observer) : observer_(observer) {}

  void didUpdateItems(std::vector<NSFileProviderItemPtr> items) override;
  void didDeleteItems(std::vector<NSFileProviderItemIdentifier> identifiers) override;
  void finishEnumeratingChanges(NSFileProviderSyncAnchor upTo, bool moreComing) override;
  void finishEnumeratingWithError(const NSError& error) override;

 private:
  const Retained<id<NSFileProviderChangeObserver>> observer_;
};

}  // namespace kestrowan::macos
