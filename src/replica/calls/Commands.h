#pragma once

#include <cstddef>
#include <vector>

#include "replica/CommandCalls.h"
#include "replica/calls/Rooms.h"

namespace kestrowan::replica::calls {

/// What commands ask of a replica and do with it. The calls are documented in `CommandCalls`.
/// Usable from every thread. Throws `NSError`.
class Commands {
 public:
  explicit Commands(const Rooms& rooms) : rooms_(rooms) {}

  ItemStatus itemStatus(model::ItemNumber item) const;
  Status status(std::size_t limit) const;
  EvictionResult evict(model::ItemNumber item);
  PinResult setPinned(model::ItemNumber item, bool isPinned);
  void retry(model::ItemNumber item);
  std::size_t discard(model::ItemNumber item);

 private:
  SyncState stateOf(const model::Item& item) const;
  const model::Item* otherSide(const model::State& state, const model::Item& item) const;
  ItemStatus statusOf(const model::State& state, const model::Item& item) const;
  std::vector<model::ItemNumber> pendingIn(const model::State& state,
                                           model::ItemNumber folder) const;
  std::vector<ContentNumber> evictSome(const std::vector<model::ItemNumber>& items,
                                       EvictionResult& result);
  bool discardOne(model::Edit& edit, model::ItemNumber item) const;

  const Rooms& rooms_;
};

}  // namespace kestrowan::replica::calls
