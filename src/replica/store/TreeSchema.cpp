#include "replica/store/TreeSchema.h"

#include <cerrno>
#include <cstdint>
#include <functional>
#include <iterator>
#include <optional>
#include <string>

#include "platform/foundation/NSError.h"
#include "replica/store/IntentRow.h"
#include "replica/store/Schema.h"
#include "replica/store/Statement.h"
#include "replica/store/TakeoverRun.h"
#include "replica/store/TreeRow.h"

namespace kestrowan::replica::store {

namespace {

/// The first version that has a tree. Those between are left to the versions before.
constexpr std::int64_t kFirstTree = 100;
/// What makes each later version out of the one before. Never changed once released, only added to.
/// What contents take of the disk is looked up when the rows are read.
constexpr const char* kMigrations[] = {
    "ALTER TABLE history ADD COLUMN allocated INTEGER NOT NULL DEFAULT 0;",
};
constexpr std::int64_t kNewest = kFirstTree + std::size(kMigrations);
constexpr std::int64_t kApplication = 0x4B705270;
/// The first numbers that are not given yet; how many rows were left out and not made up for. Items
/// and contents had one series of numbers.
constexpr const char* kMakeSeries =
    "CREATE TABLE series("
    " item INTEGER NOT NULL, intent INTEGER NOT NULL, content INTEGER NOT NULL,"
    " left_out INTEGER NOT NULL"
    ") STRICT;"
    "INSERT INTO series SELECT next,1+(SELECT count(*) FROM intents),next,0 FROM numbers;";
/// Contents that no item has any more.
constexpr const char* kMakeOrphans =
    "CREATE TABLE orphans(content INTEGER PRIMARY KEY, name BLOB NOT NULL) STRICT;";

[[noreturn]] void refuse(const Database& database, int number, const char* reason) {
  throw NSError(NSPOSIXErrorDomain, number,
                {{std::string(NSLocalizedDescriptionKey), database.path() + ": " + reason},
                 {std::string(NSFilePathErrorKey), database.path()}});
}

void checkWhole(Database& database) {
  Statement check(database, "PRAGMA quick_check(1)");
  if (check.step() && check.bytes(0) == "ok") return;
  refuse(database, EIO, "the database is damaged");
}

/// Within a transaction.
void moveOn(Database& database, std::int64_t version) {
  if (version == kNewest) return;
  for (; version < kNewest; ++version) database.execute(kMigrations[version - kFirstTree]);
  database.execute(("PRAGMA user_version=" + std::to_string(kNewest)).c_str());
}

/// Within a transaction.
void takeOver(Database& database, const remote::IdentifierForm& form, model::Time now) {
  database.execute(kMakeTree);
  database.execute(kMakeIntents);
  database.execute(kMakeOrphans);
  TakeoverRun takeover(database, form, now);
  takeover.run();
  database.execute(kMakeSeries);
  const std::string leftOut = std::to_string(takeover.leftOut());
  database.execute(("UPDATE series SET left_out=" + leftOut).c_str());
  database.execute("DROP TABLE items; DROP TABLE numbers;");
  moveOn(database, kFirstTree);
}

void changeForGood(Database& database, const std::function<void()>& change) {
  database.execute("BEGIN IMMEDIATE");
  try {
    change();
    database.execute("COMMIT");
  } catch (...) {
    if (database.isInTransaction()) database.execute("ROLLBACK");
    throw;
  }
}

/// The version of a database that has a tree; nothing for one that has none.
std::optional<std::int64_t> treeVersion(Database& database) {
  const auto version = database.number("PRAGMA user_version");
  if (version > kNewest) {
    refuse(database, ENOTSUP, "a later version of the program has written this database");
  }
  if (version < kFirstTree) return std::nullopt;
  if (database.number("PRAGMA application_id") != kApplication) {
    refuse(database, EIO, "this is no database of the replica");
  }
  return version;
}

}  // namespace

std::unique_ptr<Database> openTreeDatabase(const std::string& path,
                                           const remote::IdentifierForm& form, model::Time now) {
  auto database = std::make_unique<Database>(path);
  if (const auto version = treeVersion(*database)) {
    checkWhole(*database);
    database->beginLogging();
    if (version != kNewest) changeForGood(*database, [&] { moveOn(*database, *version); });
    return database;
  }
  database.reset();
  database = openReplicaDatabase(path);
  changeForGood(*database, [&] { takeOver(*database, form, now); });
  return database;
}

std::unique_ptr<Database> readTreeDatabase(const std::string& path,
                                           const remote::IdentifierForm& form, model::Time now) {
  auto database = Database::openToRead(path);
  if (!database) return nullptr;
  if (const auto version = treeVersion(*database)) {
    // Never committed.
    database->execute("BEGIN");
    moveOn(*database, *version);
    return database;
  }
  database.reset();
  database = readReplicaDatabase(path);
  if (database) takeOver(*database, form, now);
  return database;
}

}  // namespace kestrowan::replica::store
