#pragma once

#include "replica/model/Journal.h"
#include "replica/store/Statement.h"

namespace kestrowan::replica::store {

/// The numbers of items, intents and contents that count as given: many more than were given, so
/// that giving one writes nothing. What a dead process had reserved and not given is never given.
/// Its database must outlive it. Not thread-safe.
class Reservations {
 public:
  /// First numbers of which none was given.
  struct Next {
    std::uint64_t item = 0;
    std::uint64_t intent = 0;
    std::uint64_t content = 0;
  };

  explicit Reservations(Database& database);

  const Next& reserved() const { return reserved_; }
  /// Learns which numbers an edit uses. Whether more must be reserved with it.
  bool isExceededBy(const model::Changes& changes);
  /// Reserves, in the transaction that is open. Followed by `confirm` when that was committed.
  void reserve();
  /// The same for contents alone.
  void reserveContents();
  void confirm() { reserved_ = wanted_; }
  /// Numbers of items and intents that were not given are not reserved any more.
  void giveBack();

 private:
  void save(const Next& next);

  Statement save_;
  Next reserved_;
  Next wanted_;
  Next used_;
};

}  // namespace kestrowan::replica::store
