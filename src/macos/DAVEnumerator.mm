#include "macos/DAVEnumerator.h"

#include <optional>
#include <utility>

#include "macos/Convert.h"
#include "macos/Observers.h"
#include "macos/Retained.h"
#include "platform/base/Fatal.h"

using kestrowan::macos::ChangeObserver;
using kestrowan::macos::coreData;
using kestrowan::macos::EnumerationObserver;
using kestrowan::macos::Handler;
using kestrowan::macos::platformData;

@implementation DAVEnumerator

- (instancetype)init {
  kestrowan::fatalError("a DAVEnumerator cannot be made without its container");
}

- (instancetype)initWithCore:(std::shared_ptr<kestrowan::NSFileProviderEnumerator>)core {
  self = [super init];
  if (self) core_ = std::move(core);
  return self;
}

- (void)invalidate {
  core_->invalidate();
}

- (void)enumerateItemsForObserver:(id<NSFileProviderEnumerationObserver>)observer
                   startingAtPage:(NSFileProviderPage)page {
  core_->enumerateItems(std::make_shared<EnumerationObserver>(observer), coreData(page));
}

- (void)enumerateChangesForObserver:(id<NSFileProviderChangeObserver>)observer
                     fromSyncAnchor:(NSFileProviderSyncAnchor)anchor {
  core_->enumerateChanges(std::make_shared<ChangeObserver>(observer), coreData(anchor));
}

- (void)currentSyncAnchorWithCompletionHandler:(void (^)(NSFileProviderSyncAnchor))handler {
  core_->currentSyncAnchor([handler = Handler(handler)](
                               const std::optional<kestrowan::NSFileProviderSyncAnchor>& anchor) {
    @autoreleasepool {
      handler(anchor ? platformData(*anchor) : nil);
    }
  });
}

@end
