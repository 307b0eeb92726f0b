#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <unordered_set>
#include <vector>

#include "replica/store/HistoryTrim.h"
#include "replica/store/ItemStore.h"
#include "replica/store/VersionPace.h"

namespace kestrowan::replica {

/// The contents that left their items, and what they take: the rows of the table "history",
/// counted. Rows are put by their owner together with those of the items, and told of here. Guarded
/// by the lock of the items; throws as `ItemStore` does.
class History {
 public:
  explicit History(ItemStore& store) : store_(store) {}

  /// Reads the rows, and removes those whose contents are not among `present`. Gives the numbers of
  /// the others.
  std::unordered_set<ContentNumber> load(const std::unordered_set<ContentNumber>& present);

  /// A row was put, or is about to be; and the opposite.
  void noteKept(const HistoryEntry& entry) { count(entry, 1); }
  void noteGone(const HistoryEntry& entry) { count(entry, -1); }
  const HistoryUsage& usage() const { return usage_; }

  /// What may be taken, in bytes.
  void setLimit(std::int64_t bytes) { limit_ = bytes; }
  std::int64_t limit() const { return limit_; }
  /// What the provider never had takes more than that.
  bool isFull() const { return usage_.unconfirmedBytes > limit_; }

  std::optional<HistoryEntry> find(ContentNumber content) { return store_.history().find(content); }
  /// At most `most` rows behind `after`, as the table has them.
  std::vector<HistoryEntry> page(Confirmed confirmed, HistoryTable::Position after,
                                 std::size_t most) {
    return store_.history().page(confirmed, after, most);
  }
  /// `before`: seconds since 1970-01-01 UTC.
  HistoryTrim beginTrim(std::int64_t bytes, std::int64_t before, HistoryTrim::Question isThere) {
    return {store_.history(), {.bytes = bytes, .before = before}, std::move(isThere)};
  }
  /// Removes the rows, all or none. Their contents are the caller's to remove, once that is
  /// durable.
  void remove(const std::vector<HistoryEntry>& entries);
  /// The file of the contents has that size by now.
  void resize(ContentNumber content, std::int64_t size);

  VersionPace& pace() { return pace_; }

 private:
  void count(const HistoryEntry& entry, std::int64_t by);

  ItemStore& store_;
  HistoryUsage usage_;
  std::int64_t limit_ = INT64_MAX;
  VersionPace pace_;
};

}  // namespace kestrowan::replica
