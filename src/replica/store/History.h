#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "async/Loop.h"
#include "replica/store/ContentFiles.h"
#include "replica/store/HistoryTable.h"
#include "replica/store/HistoryTrim.h"
#include "replica/store/TreeJournal.h"
#include "replica/store/VersionPace.h"

namespace kestrowan::replica::store {

/// The contents that left their items, and what they take: the rows of the table "history",
/// counted. What an edit makes leave its item comes in with the edit's own rows. Usable from every
/// thread; throws as the journal does. Sizes are bytes.
class History : public LeftTaker {
 public:
  /// All must outlive it.
  History(TreeJournal& journal, const ContentFiles& files, const async::Loop& loop);
  ~History() override;
  History(const History&) = delete;
  History& operator=(const History&) = delete;

  /// Reads the rows, and removes those whose contents are not among `present`. What the others take
  /// of the disk is looked up again. Before the first edit.
  void load(const std::unordered_set<ContentNumber>& present);

  HistoryUsage usage() const;
  /// What may be taken.
  void setLimit(std::int64_t bytes);
  std::int64_t limit() const;
  /// Throws ENOSPC when what the provider never had takes more than that.
  void requireRoom() const;

  std::optional<HistoryEntry> find(ContentNumber content) const;
  /// Those of `numbers` that are in it.
  std::unordered_set<ContentNumber> among(const std::vector<ContentNumber>& numbers) const;
  /// At most `most` rows of `confirmed` behind `after`, in the order of their age.
  std::vector<HistoryEntry> page(Confirmed confirmed, HistoryTable::Position after,
                                 std::size_t most) const;

  HistoryTrim beginTrim(const HistoryTrim::Limits& limits) { return {table_, limits}; }
  std::vector<HistoryEntry> next(HistoryTrim& trim) const;

  /// Contents without an item. What they take of the disk is looked up.
  void keep(std::vector<HistoryEntry> entries);
  /// Removes those that are still there, all or none, and gives them. Their contents are the
  /// caller's to remove, once that is durable.
  std::vector<HistoryEntry> remove(const std::vector<HistoryEntry>& entries);
  /// The file of the contents has that size by now, and takes what it takes. Does nothing for
  /// contents that are not in it.
  void resize(ContentNumber content, std::int64_t size);

  /// The provider has, or had, the contents as that version. Does nothing for contents that are not
  /// in it.
  void noteConfirmed(ContentNumber content, const NSData& version);

  /// A program here begins to write these contents.
  void noteWritten(ContentNumber content);
  /// Whether a copy of these contents at that path is to be kept before they are changed in place.
  bool isVersionDue(const std::string& path, ContentNumber content) const;
  /// That copy is kept, in the edit's transaction when it is made within one. It took `cost`
  /// milliseconds.
  void keepVersion(const HistoryEntry& entry, std::int64_t cost);

  void write(const std::vector<model::Left>& left) override;
  void confirm(bool isWritten) noexcept override;

 private:
  std::optional<HistoryEntry> entryOf(const model::Left& left) const;
  std::int64_t allocated(const HistoryEntry& entry) const;
  void count(const HistoryEntry& entry, std::int64_t by);
  std::int64_t uptime() const;

  TreeJournal& journal_;
  const ContentFiles& files_;
  const async::Loop& loop_;
  mutable HistoryTable table_;  // as what follows: guarded by the journal's lock
  HistoryUsage usage_;
  std::int64_t limit_ = INT64_MAX;
  VersionPace pace_;
  /// What the transaction that is open has put.
  std::vector<HistoryEntry> written_;
};

}  // namespace kestrowan::replica::store
