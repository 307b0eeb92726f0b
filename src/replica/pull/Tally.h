#pragma once

#include <cstdint>
#include <mutex>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "replica/model/Item.h"
#include "replica/store/ContentFiles.h"

namespace kestrowan::replica::pull {

/// Which contents could be fetched again, and how much is to be sent: kept up with each change, so
/// that a question takes no look at all items. Usable from every thread. Sizes are bytes.
class Tally {
 public:
  /// `files` must outlive it.
  explicit Tally(const ContentFiles& files) : files_(files) {}

  /// The item may count in another way than before.
  void note(const model::Item& item, std::int64_t size);
  void noteDropped(model::ItemNumber item);

  /// Files whose contents are here and at the provider too.
  std::vector<model::ItemNumber> cachedFiles() const;
  std::int64_t cachedCount() const;
  /// Without the holes of files.
  std::int64_t cachedBytes() const;
  /// The copies from here of files that both sides had changed, the latest last.
  std::vector<model::ItemNumber> conflictCopies() const;
  /// The copy from here of one conflict; `none` when there is none any more.
  model::ItemNumber copyOf(model::ConflictNumber conflict) const;
  /// Contents that are to be sent.
  std::int64_t pendingBytes() const;

 private:
  /// Numbers of items with the sum of what is counted for them.
  struct Counted {
    std::unordered_map<model::ItemNumber, std::int64_t> bytes;
    std::int64_t sum = 0;

    void set(model::ItemNumber item, bool isIn, std::int64_t size);
  };

  const ContentFiles& files_;
  mutable std::mutex mutex_;  // guards what follows; a leaf
  Counted cached_;
  Counted pending_;
  std::set<std::pair<model::ConflictNumber, model::ItemNumber>> copies_;
};

}  // namespace kestrowan::replica::pull
