#pragma once

#include <cstdint>
#include <set>
#include <unordered_map>

#include "replica/Item.h"

namespace kestrowan::replica {

/// Which items have something to be sent, which contents could be fetched again, and which folders'
/// listings do not come whole: kept up with each change of an item, so that a question takes no
/// look at all items. Guarded by the core's lock. Sizes are bytes.
class Tally {
 public:
  using Pending = std::unordered_map<Rid, std::int64_t>;

  /// The item may count in another way than before: it was changed, or left the tree.
  void note(const Item& item);

  /// The items with something to be sent, and how many bytes of contents that is of each.
  const Pending& pending() const { return pending_; }
  std::int64_t pendingBytes() const { return pendingBytes_; }
  /// Contents here that the provider has too.
  struct Usage {
    std::int64_t files = 0;
    std::int64_t bytes = 0;
  };
  Usage cached() const { return {static_cast<std::int64_t>(cached_.size()), cachedBytes_}; }
  /// The folders whose last listing did not come whole.
  const std::set<Rid>& partialFolders() const { return partialFolders_; }

 private:
  Pending pending_;
  std::int64_t pendingBytes_ = 0;
  std::unordered_map<Rid, std::int64_t> cached_;
  std::int64_t cachedBytes_ = 0;
  std::set<Rid> partialFolders_;
};

}  // namespace kestrowan::replica
