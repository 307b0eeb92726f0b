#pragma once

#include <functional>
#include <memory>
#include <string>

#include "replica/Records.h"
#include "replica/store/HistoryTable.h"

namespace kestrowan::replica {

/// The replica's rows on disk: one SQLite database in WAL mode. A committed change survives the
/// death of the process; after `sync` it survives a power failure too.
///
/// Not thread-safe but for `sync`: its owner's lock guards it. Everything throws `NSError` of
/// `NSPOSIXErrorDomain` with a text that names the file: EIO for a damaged database, ENOSPC for a
/// full disk, ENOTSUP for one that a later version of the program wrote, EBUSY for one that is in
/// use elsewhere.
class ItemStore {
 public:
  /// Opens or creates "replica.db" in `directory`, and brings an older schema up to date.
  explicit ItemStore(const std::string& directory);
  ItemStore(const ItemStore&) = delete;
  ItemStore& operator=(const ItemStore&) = delete;
  ~ItemStore();

  /// Several changes that become true together. May be nested: the outermost one counts. Undone
  /// when it goes out of scope without `commit`; so is the outermost one, whose `commit` then
  /// throws ECANCELED, when that happens to an inner one or when one of the changes failed.
  class Transaction {
   public:
    explicit Transaction(ItemStore& store);
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    ~Transaction();
    void commit();

   private:
    ItemStore& store_;
    bool open_ = true;
  };

  /// Hands every row to `receive`, in no order. A row that makes no sense (a negative size, an
  /// unknown kind) is left out and counted in the result.
  std::size_t load(const std::function<void(ItemRecord)>& receive);

  /// Inserts or replaces the row of `record.rid`. EINVAL for a record that makes no sense.
  void save(const ItemRecord& record);
  void remove(Rid rid);

  /// Inserts or replaces a row of the history, and removes one.
  void keep(const HistoryEntry& entry);
  void forget(ContentNumber content);
  /// To read the history's rows; they are changed by the two above.
  HistoryTable& history();

  /// A number that this replica never gave before, over restarts too; the first is 2.
  Number nextNumber();

  /// Never gives that number, nor one below it. Whether it might have been given without this.
  bool skipNumber(Number taken);

  /// Makes every committed change durable. From any thread, also while another one writes.
  void sync();

  /// Gives space back to the file system when much of the file is unused.
  void compact();

 private:
  class Implementation;
  const std::unique_ptr<Implementation> implementation_;
};

}  // namespace kestrowan::replica
