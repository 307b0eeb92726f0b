#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "replica/Item.h"
#include "replica/store/ContentFiles.h"
#include "replica/store/History.h"

namespace kestrowan::replica {

struct Core;

/// The one way by which contents leave an item: into the history, where their file stays what it
/// is. Owned by the core, whose lock guards it: each call is made with the lock held unless it says
/// otherwise.
class Departures {
 public:
  explicit Departures(Core& core);

  /// Reads the history, of whose files `present` are here. Gives the numbers of those.
  std::unordered_set<ContentNumber> load(const std::unordered_set<ContentNumber>& present);

  /// The item's contents leave it, and it has none any more.
  void leave(const ItemPtr& item, HistoryReason reason);
  /// The same for an item that is about to leave the tree: programs that have it open, or may still
  /// open it, go on with the contents.
  void leaveWith(const ItemPtr& item, HistoryReason reason);
  /// Contents that newer ones of the same item have replaced: one version a minute is kept.
  void leaveVersion(const Item& item, ContentNumber content, std::int64_t size,
                    Confirmed confirmed);
  /// The row of the newer contents could not be written, and those from before stay.
  void takeBack(ContentNumber content);
  /// Contents without an item.
  void keep(HistoryEntry entry);
  /// An item that has left the tree is not used any more, and so its contents are not.
  void release(const ItemPtr& item);

  /// Whether a copy of the item's contents is to be kept before they are changed in place.
  bool isCopyDue(const Item& item);
  /// That copy was made, in `cost` milliseconds.
  void keepCopy(const Item& item, ContentNumber copy, std::int64_t cost);
  static Confirmed confirmedOf(const Item& item);

  /// Throws ENOSPC while what may not go fills the history.
  void requireRoom() const;

  /// Removes contents that no row names any more, once a power failure cannot bring that row back.
  void retire(ContentNumber number);
  /// Does so now. Without the lock.
  void removeRetired();

  /// Finds out what the limits are, and lets go of what is too old or too much; goes on by itself
  /// until that is done. Without the lock, on the loop.
  void trim();
  /// Removes those of the entries that are still there for good, rows first, and gives them.
  /// Without the lock.
  std::vector<HistoryEntry> remove(std::vector<HistoryEntry> entries);

  History& history() { return history_; }
  const History& history() const { return history_; }

 private:
  bool isKept(ContentNumber content);
  HistoryEntry entryOf(const Item& item, HistoryReason reason) const;
  bool isStillAtProvider(const HistoryEntry& entry) const;
  void trimOn(const std::shared_ptr<HistoryTrim>& trim);
  void removeFiles(const std::vector<ContentNumber>& numbers);

  Core& core_;
  History history_;
  bool isTrimming_ = false;
  /// Contents that no row names, but perhaps one did when rows were durable last.
  std::vector<ContentNumber> retired_;
};

}  // namespace kestrowan::replica
