#include "macos/Observers.h"

#include "macos/Convert.h"

namespace kestrowan::macos {

namespace {

::NSArray* platformItems(const std::vector<NSFileProviderItemPtr>& items) {
  ::NSMutableArray* array = [::NSMutableArray arrayWithCapacity:items.size()];
  for (const auto& item : items) [array addObject:platformItem(item)];
  return array;
}

}  // namespace

void EnumerationObserver::didEnumerateItems(std::vector<NSFileProviderItemPtr> items) {
  @autoreleasepool {
    [observer_.get() didEnumerateItems:platformItems(items)];
  }
}

void EnumerationObserver::finishEnumeratingUpToPage(std::optional<NSFileProviderPage> nextPage) {
  @autoreleasepool {
    [observer_.get() finishEnumeratingUpToPage:nextPage ? platformData(*nextPage) : nil];
  }
}

void EnumerationObserver::finishEnumeratingWithError(const NSError& error) {
  @autoreleasepool {
    [observer_.get() finishEnumeratingWithError:platformError(error)];
  }
}

void ChangeObserver::didUpdateItems(std::vector<NSFileProviderItemPtr> items) {
  @autoreleasepool {
    [observer_.get() didUpdateItems:platformItems(items)];
  }
}

void ChangeObserver::didDeleteItems(std::vector<NSFileProviderItemIdentifier> identifiers) {
  @autoreleasepool {
    ::NSMutableArray* array = [::NSMutableArray arrayWithCapacity:identifiers.size()];
    for (const auto& identifier : identifiers) [array addObject:platformString(identifier)];
    [observer_.get() didDeleteItemsWithIdentifiers:array];
  }
}

void ChangeObserver::finishEnumeratingChanges(NSFileProviderSyncAnchor upTo, bool moreComing) {
  @autoreleasepool {
    [observer_.get() finishEnumeratingChangesUpToSyncAnchor:platformData(upTo)
                                                 moreComing:moreComing ? YES : NO];
  }
}

void ChangeObserver::finishEnumeratingWithError(const NSError& error) {
  @autoreleasepool {
    [observer_.get() finishEnumeratingWithError:platformError(error)];
  }
}

}  // namespace kestrowan::macos
