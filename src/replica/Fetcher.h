#pragma once

#include "replica/Core.h"
#include "replica/remote/Health.h"

namespace kestrowan::replica {

/// Brings contents here. One fetch of an item at a time; it goes on when nobody waits any more.
class Fetcher {
 public:
  Fetcher(Core& core, remote::Health& health) : core_(core), health_(health) {}

  /// Completes once the item's contents are here. Waits for a server that is not there as long as
  /// `Health` does. Without the lock.
  void fetch(const ItemPtr& item, Completion<Done> completion);
  /// The same for whoever holds the lock and does not wait; does nothing while that is not
  /// possible.
  void fetchLater(const ItemPtr& item);
  /// The item is being opened to be read. Fetches ahead when it is one of several in its folder.
  /// Without the lock.
  void walked(const ItemPtr& item);
  /// How many fetches are in flight. Locked.
  std::int64_t inFlight() const { return inFlight_; }

  /// Gives space back until `needed` bytes more fit. Locked; throws ENOSPC when they do not.
  void makeRoom(std::int64_t needed);
  /// Whether contents could be given back now. Locked.
  static bool isEvictable(const Item& item);
  /// Gives contents back. Locked.
  void evict(const ItemPtr& item);
  /// Looks every minute whether the limits are kept.
  void watchLimits();

 private:
  void keepLimits();
  void keepLimit(const std::function<void()>& action);
  void begin(const ItemPtr& item);
  ItemPtr moverOf(const Item& item) const;
  Task<void> untilItStays(ItemPtr item);
  Task<void> run(ItemPtr item);
  Task<void> bring(ItemPtr item);
  Task<void> reachServer();
  bool adoptUnlessStale(const ItemPtr& item, const Base& before, const remote::FetchedFile& file,
                        bool last);
  std::optional<NSError> adopt(const ItemPtr& item, const Base& before,
                               const remote::FetchedFile& file, bool last);
  void finish(const ItemPtr& item, const std::optional<NSError>& error);
  std::int64_t cacheLimit() const;
  std::int64_t freeSpaceFloor() const;

  Core& core_;
  remote::Health& health_;
  std::int64_t inFlight_ = 0;
  /// At most so much is cached, what is being fetched included.
  std::optional<std::int64_t> cachedAtMost_;
};

}  // namespace kestrowan::replica
