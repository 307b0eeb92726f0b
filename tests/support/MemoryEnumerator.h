#pragma once

#include <memory>

#include "platform/fileprovider/NSFileProviderEnumerator.h"
#include "support/CallRunner.h"
#include "support/MemoryItems.h"

namespace kestrowan::test {

/// Lists one folder of the server in memory, anew with each page. Tracks no changes.
class MemoryEnumerator : public NSFileProviderEnumerator {
 public:
  MemoryEnumerator(NSFileProviderItemIdentifier container, async::Loop& loop,
                   std::shared_ptr<CallRunner> runner, std::shared_ptr<const MemoryItems> items)
      : container_(std::move(container)),
        loop_(loop),
        runner_(std::move(runner)),
        items_(std::move(items)) {}

  void invalidate() override {}
  void enumerateItems(std::shared_ptr<NSFileProviderEnumerationObserver> observer,
                      NSFileProviderPage startingAtPage) override;
  void enumerateChanges(std::shared_ptr<NSFileProviderChangeObserver> observer,
                        NSFileProviderSyncAnchor fromSyncAnchor) override;
  void currentSyncAnchor(
      std::function<void(std::optional<NSFileProviderSyncAnchor>)> completionHandler) override;

 private:
  const NSFileProviderItemIdentifier container_;
  async::Loop& loop_;
  const std::shared_ptr<CallRunner> runner_;
  const std::shared_ptr<const MemoryItems> items_;
};

}  // namespace kestrowan::test
