#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "async/Loop.h"
#include "replica/Options.h"
#include "replica/model/Edit.h"
#include "replica/pull/Tally.h"
#include "replica/store/Contents.h"
#include "replica/store/UnusedContents.h"

namespace kestrowan::replica::pull {

/// Keeps what could be fetched again within its limits, and the disk from filling up. Usable from
/// every thread. Sizes are bytes.
class Space {
 public:
  /// Whether a program has a file open. Called within edits.
  using IsOpen = std::function<bool(model::ItemNumber)>;

  Space(model::Tree& tree, const async::Loop& loop, const Options& options,
        store::Contents& contents, store::UnusedContents& unused, const Tally& tally,
        IsOpen isOpen);
  Space(const Space&) = delete;
  Space& operator=(const Space&) = delete;

  /// Room for a download of that size, for as long as the result lives. Gives back what was used
  /// longest ago, which may take long; throws ENOSPC when that is not enough.
  std::shared_ptr<void> take(std::int64_t bytes);
  /// The same at once; null when something has to be given back first.
  std::shared_ptr<void> takeFree(std::int64_t bytes);
  /// A program uses the contents of a file.
  void noteUse(model::ItemNumber file);
  /// Gives back what is beyond the limits. May take long.
  void keepLimits();

  /// Whether the contents of a file could be given back now.
  bool isEvictable(const model::Item& file) const;
  /// Gives the contents of a file back. To be committed by the caller, who removes what this gives
  /// after the edit.
  static ContentNumber evict(model::Edit& edit, model::ItemNumber file);
  /// What is left free of the disk.
  std::int64_t freeSpaceFloor() const;

 private:
  std::int64_t cacheLimit() const;
  std::int64_t excess(std::int64_t needed, std::int64_t free) const;
  void makeRoom(std::int64_t bytes);
  std::shared_ptr<void> taken(std::int64_t bytes);
  std::vector<model::ItemNumber> oldest() const;

  model::Tree& tree_;
  const async::Loop& loop_;
  const Options& options_;
  store::Contents& contents_;
  store::UnusedContents& unused_;
  const Tally& tally_;
  const IsOpen isOpen_;

  std::mutex mutex_;  // held while contents are given back, or room is taken
  /// What is being fetched.
  std::atomic<std::int64_t> taken_ = 0;
  /// Uses since this process began.
  mutable std::mutex usesMutex_;  // guards what follows; a leaf
  std::unordered_map<model::ItemNumber, model::Time> uses_;
};

}  // namespace kestrowan::replica::pull
