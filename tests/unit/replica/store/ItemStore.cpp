#include "replica/store/ItemStore.h"

#include <cerrno>
#include <utility>

#include "replica/store/ItemRow.h"
#include "replica/store/NumberBlock.h"
#include "replica/store/Schema.h"
#include "replica/store/Statement.h"
#include "replica/store/StoreFiles.h"
#include "replica/store/WriteAheadLog.h"

namespace kestrowan::replica {

namespace {

constexpr const char* kFileName = "/replica.db";

// Space is given back when a quarter of the file, and at least 4 MiB, is unused.
constexpr std::int64_t kUnusedPages = 1024;
constexpr std::int64_t kUnusedPart = 4;

}  // namespace

class ItemStore::Implementation {
 public:
  explicit Implementation(const std::string& directory)
      : database_(openReplicaDatabase(directory + kFileName)),
        save_(*database_, kSaveItem),
        remove_(*database_, "DELETE FROM items WHERE rid=?1"),
        history_(*database_),
        begin_(*database_, "BEGIN"),
        commit_(*database_, "COMMIT"),
        rollback_(*database_, "ROLLBACK"),
        numbers_(*database_),
        log_(database_->logPath()) {
    log_.sync();
    syncDirectory(directory);
  }
  Implementation(const Implementation&) = delete;
  Implementation& operator=(const Implementation&) = delete;
  ~Implementation() {
    try {
      if (depth_ == 0) numbers_.giveBack();
    } catch (...) {
      // They stay noted as given, which costs nothing but numbers.
    }
  }

  void begin() {
    if (depth_ == 0) {
      // Now it can still be noted for good; later it would hang on this transaction.
      if (numbers_.isRunningLow()) reserveNumbers();
      begin_.run();
      isSpoilt_ = false;
    }
    ++depth_;
  }

  void commit() {
    if (--depth_ > 0) return;
    try {
      if (isSpoilt_) throw fileError(ECANCELED, database_->path());
      commit_.run();
    } catch (...) {
      undo();
      throw;
    }
    reservedInside_ = false;
    log_.noteCommit();
  }

  void abandon() noexcept {
    isSpoilt_ = true;
    if (--depth_ == 0) undo();
  }

  std::size_t load(const std::function<void(ItemRecord)>& receive) {
    Statement rows(*database_, kLoadItems);
    std::size_t leftOut = 0;
    while (rows.step()) {
      if (auto record = itemFromRow(rows)) {
        receive(*std::move(record));
      } else {
        ++leftOut;
      }
    }
    return leftOut;
  }

  void save(const ItemRecord& record) {
    change([&] {
      if (!isSensible(record)) throw fileError(EINVAL, database_->path());
      std::string attributes;
      bindItem(save_, record, attributes);
      save_.run();
    });
  }

  void remove(Rid rid) {
    remove_.bind(1, static_cast<std::int64_t>(rid));
    change([this] { remove_.run(); });
  }

  void keep(const HistoryEntry& entry) {
    change([&] { history_.put(entry); });
  }

  void forget(ContentNumber content) {
    change([&] { history_.remove(content); });
  }

  HistoryTable& history() { return history_; }

  Number nextNumber() {
    if (numbers_.isEmpty() || (depth_ == 0 && numbers_.isRunningLow())) reserveNumbers();
    return numbers_.take();
  }

  bool skipNumber(Number taken) {
    if (numbers_.isGiven(taken)) return false;
    numbers_.skip(taken);
    reserveNumbers();
    return true;
  }

  void sync() { log_.sync(); }

  void compact() {
    if (depth_ > 0) return;
    const auto unused = database_->number("PRAGMA freelist_count");
    const auto pages = database_->number("PRAGMA page_count");
    if (unused < kUnusedPages || unused < pages / kUnusedPart) return;
    database_->execute("VACUUM; PRAGMA wal_checkpoint(TRUNCATE);");
    log_.keepRoom();
  }

 private:
  /// Runs a statement that is a transaction of its own or part of the open one.
  template <typename Run>
  void change(Run run) {
    if (depth_ > 0 && isSpoilt_) throw fileError(ECANCELED, database_->path());
    try {
      run();
    } catch (...) {
      isSpoilt_ = true;
      throw;
    }
    if (depth_ == 0) log_.noteCommit();
  }

  void reserveNumbers() {
    change([this] { numbers_.reserve(); });
    if (depth_ == 0) {
      log_.sync();
    } else {
      reservedInside_ = true;
    }
  }

  /// Ends the transaction, which the database may have ended by itself on an error.
  void undo() noexcept {
    try {
      if (database_->isInTransaction()) rollback_.run();
      if (std::exchange(reservedInside_, false)) {
        numbers_.forgetReservation();
        reserveNumbers();
      }
    } catch (...) {
      // A transaction that cannot be ended is undone when the database is opened next; numbers that
      // cannot be reserved now are reserved when the next one is wanted.
    }
  }

  const std::unique_ptr<Database> database_;
  Statement save_;
  Statement remove_;
  HistoryTable history_;
  Statement begin_;
  Statement commit_;
  Statement rollback_;
  NumberBlock numbers_;
  WriteAheadLog log_;
  int depth_ = 0;
  /// A part of the open transaction is missing, so that it must not be committed.
  bool isSpoilt_ = false;
  bool reservedInside_ = false;
};

ItemStore::ItemStore(const std::string& directory)
    : implementation_(std::make_unique<Implementation>(directory)) {}

ItemStore::~ItemStore() = default;

ItemStore::Transaction::Transaction(ItemStore& store) : store_(store) {
  store_.implementation_->begin();
}

ItemStore::Transaction::~Transaction() {
  if (open_) store_.implementation_->abandon();
}

void ItemStore::Transaction::commit() {
  open_ = false;
  store_.implementation_->commit();
}

std::size_t ItemStore::load(const std::function<void(ItemRecord)>& receive) {
  return implementation_->load(receive);
}

void ItemStore::save(const ItemRecord& record) {
  implementation_->save(record);
}

void ItemStore::remove(Rid rid) {
  implementation_->remove(rid);
}

void ItemStore::keep(const HistoryEntry& entry) {
  implementation_->keep(entry);
}

void ItemStore::forget(ContentNumber content) {
  implementation_->forget(content);
}

HistoryTable& ItemStore::history() {
  return implementation_->history();
}

Number ItemStore::nextNumber() {
  return implementation_->nextNumber();
}

bool ItemStore::skipNumber(Number taken) {
  return implementation_->skipNumber(taken);
}

void ItemStore::sync() {
  implementation_->sync();
}

void ItemStore::compact() {
  implementation_->compact();
}

}  // namespace kestrowan::replica
