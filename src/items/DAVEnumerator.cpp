#include "items/DAVEnumerator.h"

#include <utility>

#include "extension/fpLog.h"
#include "items/FPItem.h"
#include "platform/fileprovider/NSFileProviderError.h"

namespace kestrowan {

namespace {

constexpr std::int64_t kAnchorSlot = 30;  // seconds

}  // namespace

DAVEnumerator::DAVEnumerator(const NSFileProviderItemIdentifier& container,
                             std::shared_ptr<WebDAVClient> client)
    : containerPath_(FPItem::path(container)), client_(std::move(client)) {}

void DAVEnumerator::invalidate() {}

void DAVEnumerator::enumerateItems(std::shared_ptr<NSFileProviderEnumerationObserver> observer,
                                   NSFileProviderPage) {
  if (!client_) {
    observer->finishEnumeratingWithError(
        NSFileProviderError(NSFileProviderErrorCode::notAuthenticated));
    return;
  }
  startDetached(listItems(shared_from_this(), std::move(observer)));
}

Task<void> DAVEnumerator::listItems(std::shared_ptr<DAVEnumerator> self,
                                    std::shared_ptr<NSFileProviderEnumerationObserver> observer) {
  std::vector<NSFileProviderItemPtr> items;
  try {
    auto entries = co_await self->client_->list(self->containerPath_);
    items.reserve(entries.size());
    for (auto& entry : entries) {
      items.push_back(FPItem::make(entry));
      // There may be a million.
      entry = {};
    }
  } catch (const NSError& error) {
    fpLog().error("enumerate %{public}s failed: %{public}s",
                  {self->containerPath_, error.localizedDescription()});
    observer->finishEnumeratingWithError(error);
    co_return;
  }
  observer->didEnumerateItems(std::move(items));
  observer->finishEnumeratingUpToPage(std::nullopt);
}

void DAVEnumerator::enumerateChanges(std::shared_ptr<NSFileProviderChangeObserver> observer,
                                     NSFileProviderSyncAnchor) {
  observer->finishEnumeratingWithError(
      NSFileProviderError(NSFileProviderErrorCode::syncAnchorExpired));
}

void DAVEnumerator::currentSyncAnchor(
    std::function<void(std::optional<NSFileProviderSyncAnchor>)> completionHandler) {
  completionHandler(syncAnchor(NSDate::now()));
}

NSFileProviderSyncAnchor DAVEnumerator::syncAnchor(NSDate at) {
  return "v3-" + std::to_string(wholeSeconds(at.timeIntervalSince1970) / kAnchorSlot);
}

}  // namespace kestrowan
