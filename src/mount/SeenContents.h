#pragma once

#include <mutex>
#include <unordered_map>

#include "replica/Records.h"

namespace kestrowan::mount {

/// Which contents of each file the kernel's pages may hold. Usable from every thread.
class SeenContents {
 public:
  /// Takes note that the kernel will read `contents` of `item` from now on. True when it read the
  /// same ones before, so that its pages are good.
  bool see(replica::Rid item, replica::ContentNumber contents) {
    std::lock_guard lock(mutex_);
    auto& seen = seen_[item];
    const bool same = seen == contents;
    seen = contents;
    return same;
  }

  /// The kernel may have dropped the item's pages.
  void forget(replica::Rid item) {
    std::lock_guard lock(mutex_);
    seen_.erase(item);
  }

 private:
  std::mutex mutex_;
  std::unordered_map<replica::Rid, replica::ContentNumber> seen_;
};

}  // namespace kestrowan::mount
