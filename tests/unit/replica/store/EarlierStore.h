#pragma once

#include <map>
#include <memory>
#include <string>

#include "replica/Records.h"
#include "replica/store/Database.h"
#include "replica/store/HistoryEntry.h"
#include "replica/store/Statement.h"

namespace kestrowan::replica::store {

/// Writes the database "replica.db" as the last version before the tree did, for tests of what
/// becomes of it. Throws as the database does.
class EarlierStore {
 public:
  /// Opens or makes it in `directory`.
  explicit EarlierStore(const std::string& directory);

  /// Inserts or replaces the row of `record.rid`.
  void save(const ItemRecord& record);
  /// The same in the history.
  void keep(const HistoryEntry& entry);
  /// The numbers below `next` count as given.
  void setNext(Number next);
  std::map<Rid, ItemRecord> rows();

 private:
  const std::unique_ptr<Database> database_;
  Statement save_;
};

}  // namespace kestrowan::replica::store
