#include "support/MemoryEnumerator.h"

#include <algorithm>
#include <utility>

#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/NSString.h"

namespace kestrowan::test {

namespace {

constexpr std::string_view kPagePrefix = "from ";

/// Where a page begins; 0 for one that no listing gave.
std::size_t startOf(const NSFileProviderPage& page) {
  if (!page.starts_with(kPagePrefix)) return 0;
  const auto start = int64FromText(page.substr(kPagePrefix.size()));
  return start && *start > 0 ? static_cast<std::size_t>(*start) : 0;
}

using Items = std::vector<NSFileProviderItemPtr>;

Items listing(const MemoryItems& items, const NSFileProviderItemIdentifier& container) {
  const auto path = items.path(container);
  const auto entries = path ? items.server().list(*path) : std::nullopt;
  if (!entries) throw NSFileProviderError(NSFileProviderErrorCode::serverUnreachable);
  Items listed;
  // What means the root without being its identifier is not left out of the root's own listing.
  if (*path == "/" && container != NSFileProviderRootContainerItemIdentifier) {
    listed.push_back(items.root());
  }
  for (const auto& entry : *entries) listed.push_back(items.item(entry));
  return listed;
}

void handOver(const Items& all, std::size_t start, std::size_t pageSize,
              NSFileProviderEnumerationObserver& observer) {
  start = std::min(start, all.size());
  const std::size_t end = pageSize == 0 ? all.size() : std::min(all.size(), start + pageSize);
  observer.didEnumerateItems(Items(all.begin() + static_cast<std::ptrdiff_t>(start),
                                   all.begin() + static_cast<std::ptrdiff_t>(end)));
  if (end == all.size()) {
    observer.finishEnumeratingUpToPage(std::nullopt);
  } else {
    observer.finishEnumeratingUpToPage(std::string(kPagePrefix) + std::to_string(end));
  }
}

}  // namespace

void MemoryEnumerator::enumerateItems(std::shared_ptr<NSFileProviderEnumerationObserver> observer,
                                      NSFileProviderPage startingAtPage) {
  const auto path = items_->path(container_);
  runner_->run(
      {.kind = CallKind::enumerateItems, .path = path.value_or(container_)},
      [items = items_, container = container_](CallRunner::Requests& requests, Reply& reply) {
        const auto& fault = requests.fault();
        reply.items = listing(*items, container);
        if (fault.entries && *fault.entries < reply.items.size()) {
          reply.items.resize(*fault.entries);
        }
        reply.items.insert(reply.items.end(), fault.moreEntries.begin(), fault.moreEntries.end());
      },
      [observer, start = startOf(startingAtPage),
       pageSize = items_->pageSize()](const Reply& reply) {
        if (reply.error) {
          observer->finishEnumeratingWithError(*reply.error);
        } else {
          handOver(reply.items, start, pageSize, *observer);
        }
      });
}

void MemoryEnumerator::enumerateChanges(std::shared_ptr<NSFileProviderChangeObserver> observer,
                                        NSFileProviderSyncAnchor) {
  loop_.post([observer] {
    observer->finishEnumeratingWithError(
        NSFileProviderError(NSFileProviderErrorCode::syncAnchorExpired));
  });
}

void MemoryEnumerator::currentSyncAnchor(
    std::function<void(std::optional<NSFileProviderSyncAnchor>)> completionHandler) {
  loop_.post([handler = std::move(completionHandler)] { handler("now"); });
}

}  // namespace kestrowan::test
