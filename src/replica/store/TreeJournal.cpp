#include "replica/store/TreeJournal.h"

#include <cerrno>
#include <utility>

#include "replica/store/IntentRow.h"
#include "replica/store/StoreFiles.h"
#include "replica/store/TreeLoader.h"
#include "replica/store/TreeRow.h"
#include "replica/store/TreeSchema.h"

namespace kestrowan::replica::store {

using model::Changes;
using model::Content;
using model::Intent;
using model::IntentNumber;
using model::Item;
using model::ItemNumber;
using model::State;

namespace {

constexpr const char* kFileName = "/replica.db";

// Space is given back when a quarter of the file, and at least 4 MiB, is unused.
constexpr std::int64_t kUnusedPages = 1024;
constexpr std::int64_t kUnusedPart = 4;
/// Pages that one step moves.
constexpr const char* kCompactStep = "PRAGMA incremental_vacuum(128)";

}  // namespace

TreeJournal::TreeJournal(const std::string& directory, remote::IdentifierForm form, model::Time now)
    : form_(std::move(form)),
      database_(openTreeDatabase(directory + kFileName, form_, now)),
      saveItem_(*database_, kSaveTreeItem),
      removeItem_(*database_, "DELETE FROM tree WHERE number=?1"),
      saveIntent_(*database_, kSaveIntent),
      removeIntent_(*database_, "DELETE FROM intents WHERE number=?1"),
      begin_(*database_, "BEGIN IMMEDIATE"),
      commit_(*database_, "COMMIT"),
      rollback_(*database_, "ROLLBACK"),
      numbers_(*database_),
      firstFreeContent_{numbers_.reserved().content},
      log_(database_->logPath()) {
  reserveContents();
  log_.sync();
  syncDirectory(directory);
}

TreeJournal::~TreeJournal() {
  try {
    numbers_.giveBack();
  } catch (...) {
    // They stay reserved, which costs nothing but numbers.
  }
}

/// So that no file bears a number that the database might not know of.
void TreeJournal::reserveContents() {
  try {
    run([this] { numbers_.reserveContents(); }, true);
    numbers_.confirm();
  } catch (const NSError& error) {
    // The first edit that needs numbers reserves them.
    if (error.code() != ENOSPC) throw;
  }
}

State TreeJournal::load() {
  const std::lock_guard lock(mutex_);
  TreeLoader loader(*database_, form_);
  State state = loader.load();
  leftOutItems_ = loader.leftOutItems();
  leftOutIntents_ = loader.leftOutIntents();
  leftOut_ = leftOutItems_.size() + leftOutIntents_.size() +
             static_cast<std::size_t>(database_->number("SELECT left_out FROM series"));
  return state;
}

void TreeJournal::forgetLeftOut() {
  const std::lock_guard lock(mutex_);
  if (leftOut_ == 0) return;
  run(
      [this] {
        for (const std::int64_t number : leftOutItems_) remove(removeItem_, number);
        for (const std::int64_t number : leftOutIntents_) remove(removeIntent_, number);
        database_->execute(
            "UPDATE tree SET listed_at=0 WHERE listed_at IS NOT NULL;"
            "UPDATE series SET left_out=0;");
      },
      false);
  leftOutItems_.clear();
  leftOutIntents_.clear();
  leftOut_ = 0;
}

void TreeJournal::setLeftTaker(LeftTaker* taker) {
  const std::lock_guard lock(mutex_);
  leftTaker_ = taker;
}

void TreeJournal::look(const std::function<void()>& statements) {
  const std::lock_guard lock(mutex_);
  statements();
}

void TreeJournal::change(const std::function<void()>& statements) {
  const std::lock_guard lock(mutex_);
  run(statements, false);
}

bool TreeJournal::changesNames() {
  const std::lock_guard lock(mutex_);
  return database_->number("SELECT count(*) FROM sqlite_master WHERE name='changed_names'") != 0;
}

void TreeJournal::noteChangedNames() {
  const std::lock_guard lock(mutex_);
  run(
      [this] {
        database_->execute("CREATE TABLE IF NOT EXISTS changed_names(seen INTEGER) STRICT");
      },
      true);
}

std::vector<TreeJournal::Orphan> TreeJournal::orphans() {
  const std::lock_guard lock(mutex_);
  std::vector<Orphan> result;
  Statement rows(*database_, "SELECT content,name FROM orphans ORDER BY content");
  while (rows.step()) {
    const auto content = rows.number(0).value_or(0);
    if (content <= 0) continue;
    result.push_back({Content{static_cast<std::uint64_t>(content)},
                      std::string(rows.bytes(1).value_or(std::string_view()))});
  }
  return result;
}

void TreeJournal::forgetOrphans() {
  const std::lock_guard lock(mutex_);
  run([this] { database_->execute("DELETE FROM orphans"); }, true);
}

void TreeJournal::write(const Changes& changes) {
  const std::lock_guard lock(mutex_);
  const bool needsNumbers = numbers_.isExceededBy(changes);
  const bool hasLeft = leftTaker_ && !changes.left.empty();
  const std::size_t rows =
      changes.items.size() + changes.dropped.size() + changes.intents.size() + changes.ended.size();
  if (rows == 0 && !needsNumbers && !hasLeft) return;
  try {
    run(
        [&] {
          saveAll(changes);
          if (hasLeft) leftTaker_->write(changes.left);
          if (needsNumbers) numbers_.reserve();
        },
        rows == 1 && !needsNumbers && !hasLeft);
  } catch (...) {
    if (hasLeft) leftTaker_->confirm(false);
    throw;
  }
  if (hasLeft) leftTaker_->confirm(true);
  if (needsNumbers) numbers_.confirm();
}

/// All of `statements` or, when it throws, nothing. `isOne`: a single statement is a transaction by
/// itself.
void TreeJournal::run(const std::function<void()>& statements, bool isOne) {
  try {
    if (!isOne) begin_.run();
    statements();
    if (!isOne) commit_.run();
  } catch (...) {
    // An error may have ended the transaction by itself.
    if (database_->isInTransaction()) rollback_.run();
    throw;
  }
  log_.noteCommit();
}

void TreeJournal::saveAll(const Changes& changes) {
  for (const ItemNumber number : changes.dropped) {
    remove(removeItem_, static_cast<std::int64_t>(number));
  }
  TreeRowBytes bytes;
  for (const Item* item : changes.items) {
    const auto kept = keptItem(*item);
    bindTreeItem(saveItem_, kept, bytes);
    saveItem_.run();
  }
  for (const IntentNumber number : changes.ended) {
    remove(removeIntent_, static_cast<std::int64_t>(number));
  }
  for (const Intent* intent : changes.intents) {
    bindIntent(saveIntent_, *intent);
    saveIntent_.run();
  }
}

void TreeJournal::remove(Statement& statement, std::int64_t number) {
  statement.bind(1, number);
  statement.run();
}

void TreeJournal::sync() {
  log_.sync();
}

bool TreeJournal::compact() {
  const std::lock_guard lock(mutex_);
  const auto unused = database_->number("PRAGMA freelist_count");
  if (!isCompacting_) {
    const auto pages = database_->number("PRAGMA page_count");
    if (unused < kUnusedPages || unused < pages / kUnusedPart) return false;
  }
  const bool hasSteps = database_->number("PRAGMA auto_vacuum") != 0;
  if (hasSteps) {
    database_->execute(kCompactStep);
    log_.noteCommit();
    isCompacting_ = unused > 0;
    if (isCompacting_) return true;
  } else {
    // It has steps from then on.
    database_->execute("PRAGMA auto_vacuum=INCREMENTAL; VACUUM;");
  }
  database_->execute("PRAGMA wal_checkpoint(TRUNCATE)");
  log_.keepRoom();
  return false;
}

}  // namespace kestrowan::replica::store
