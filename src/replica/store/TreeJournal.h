#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "replica/model/Journal.h"
#include "replica/model/State.h"
#include "replica/remote/IdentifierForm.h"
#include "replica/store/Database.h"
#include "replica/store/Durability.h"
#include "replica/store/LeftTaker.h"
#include "replica/store/Reservations.h"
#include "replica/store/Statement.h"
#include "replica/store/WriteAheadLog.h"

namespace kestrowan::replica::store {

/// The tree's rows on disk: one SQLite database with a write-ahead log, one transaction for each
/// edit, one row for each item and each intent. A committed edit survives the death of the process;
/// after `sync` it survives a power failure too.
///
/// Usable from every thread. Everything throws `NSError` of `NSPOSIXErrorDomain` with a text that
/// names the file: EIO for a damaged database, ENOSPC for a full disk, ENOTSUP for one that a later
/// version of the program wrote, EBUSY for one that is in use elsewhere.
class TreeJournal : public model::Journal, public Durability {
 public:
  /// Contents that no item has any more since an earlier version's rows were taken over.
  struct Orphan {
    model::Content content = model::Content::none;
    /// By which its item was known.
    std::string name;
  };

  /// Opens or creates "replica.db" in `directory`; rows of an earlier version are taken over.
  TreeJournal(const std::string& directory, remote::IdentifierForm form, model::Time now);
  ~TreeJournal() override;
  TreeJournal(const TreeJournal&) = delete;
  TreeJournal& operator=(const TreeJournal&) = delete;

  /// Reads all. To be called once, before the first edit. Requests that were under way when the
  /// rows were written still are.
  model::State load();
  /// How many rows were left out, at this load or before: contents that no row names may be theirs.
  std::size_t leftOut() const { return leftOut_; }
  /// Removes the rows that were left out. To be called once their contents are safe.
  void forgetLeftOut();

  /// What takes what leaves its item; null for nothing. Before the first edit, and after the last.
  void setLeftTaker(LeftTaker* taker);
  /// For statements of other tables, which run within `look` or `change` alone.
  Database& database() { return *database_; }
  /// Runs `statements` under the lock; and the same as one transaction, all of them or, when one
  /// throws, none. Neither within the other.
  void look(const std::function<void()>& statements);
  void change(const std::function<void()>& statements);
  /// Whether the provider was seen to change names that it was given.
  bool changesNames();
  void noteChangedNames();
  std::vector<Orphan> orphans();
  void forgetOrphans();

  /// The numbers of contents from this one on were never given before this journal began: a file
  /// that had such a number then is newer than the database.
  model::Content firstFreeContent() const { return firstFreeContent_; }

  void write(const model::Changes& changes) override;
  void sync() override;
  /// One step of giving space back to the file system, when much of the file is unused; edits wait
  /// for one of these alone. Whether another one is to follow. The first of a database that an
  /// earlier version made is the only one, and takes long.
  bool compact();

 private:
  void reserveContents();
  void run(const std::function<void()>& statements, bool isOne);
  void saveAll(const model::Changes& changes);
  void remove(Statement& statement, std::int64_t number);

  const remote::IdentifierForm form_;
  std::mutex mutex_;  // guards what follows but the log
  const std::unique_ptr<Database> database_;
  Statement saveItem_;
  Statement removeItem_;
  Statement saveIntent_;
  Statement removeIntent_;
  Statement begin_;
  Statement commit_;
  Statement rollback_;
  Reservations numbers_;
  const model::Content firstFreeContent_;
  LeftTaker* leftTaker_ = nullptr;
  std::vector<std::int64_t> leftOutItems_;
  std::vector<std::int64_t> leftOutIntents_;
  std::size_t leftOut_ = 0;
  bool isCompacting_ = false;
  WriteAheadLog log_;
};

}  // namespace kestrowan::replica::store
