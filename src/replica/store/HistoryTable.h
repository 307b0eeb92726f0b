#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "replica/store/HistoryEntry.h"
#include "replica/store/Statement.h"

namespace kestrowan::replica {

/// The rows of the table "history". Its database must outlive it. Not thread-safe; throws as the
/// database does.
class HistoryTable {
 public:
  explicit HistoryTable(Database& database);

  /// Where a row stands among those of its `confirmed`: behind the older ones.
  struct Position {
    std::int64_t at = INT64_MIN;
    ContentNumber content = 0;
  };

  /// Inserts or replaces the row of `entry.content`.
  void put(const HistoryEntry& entry);
  void remove(ContentNumber content);
  std::optional<HistoryEntry> find(ContentNumber content);
  /// The oldest rows of `confirmed` behind `after`, at most `most`.
  std::vector<HistoryEntry> page(Confirmed confirmed, Position after, std::size_t most);
  /// Hands every row to `receive`, in no order. One that makes no sense is left out.
  void load(const std::function<void(const HistoryEntry&)>& receive);

 private:
  Database& database_;
  Statement put_;
  Statement remove_;
  Statement find_;
  Statement page_;
};

}  // namespace kestrowan::replica
