#pragma once

#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "async/Loop.h"
#include "platform/foundation/NSError.h"
#include "replica/Item.h"
#include "replica/store/ItemStore.h"

namespace kestrowan::replica {

/// The items' way to their rows. What is saved is written at once, or together with the rest of a
/// batch. What cannot be written (the disk is full) is tried again until it can: a row is always
/// written as its item then is, so rows catch up with items whatever happened in between.
///
/// Guarded by `mutex`, the lock of the items.
class Rows {
 public:
  Rows(ItemStore& store, async::Loop& loop, std::mutex& mutex);
  Rows(const Rows&) = delete;
  Rows& operator=(const Rows&) = delete;

  // Locked; neither throws.

  void save(const ItemPtr& item);
  void remove(Rid rid);
  /// A row of the history, which is written together with those that wait, or follow in a batch.
  void keep(HistoryEntry entry);
  /// Takes that back for contents whose row has not been written, and gives it.
  std::optional<HistoryEntry> takeBack(ContentNumber content);
  /// Whether there is such a row that has not been written.
  bool isKeeping(ContentNumber content) const;

  /// For who promises that a change outlives the process: throws what keeps rows from being
  /// written. Not in a batch.
  void requireWritten();
  bool areWritten() const { return waiting_.empty() && leaving_.empty(); }

  /// Rows that become true together, when the outermost of those that are nested ends.
  class Batch {
   public:
    explicit Batch(Rows& rows) : rows_(rows) { ++rows_.batches_; }
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;
    ~Batch();

   private:
    Rows& rows_;
  };

 private:
  /// Null for a row that goes.
  using Change = std::pair<Rid, ItemPtr>;

  void add(Change change);
  void write();
  void writeAll();
  void tryLater();

  ItemStore& store_;
  async::Loop& loop_;
  std::mutex& mutex_;
  unsigned batches_ = 0;
  bool retrying_ = false;
  std::vector<Change> waiting_;
  std::vector<HistoryEntry> leaving_;
  std::optional<NSError> error_;
};

}  // namespace kestrowan::replica
