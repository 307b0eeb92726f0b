#include "replica/store/Schema.h"

#include <cerrno>
#include <cstdint>
#include <iterator>

#include "platform/foundation/NSError.h"
#include "replica/store/Statement.h"

namespace kestrowan::replica {

namespace {

// "KpRp", in the file's header for a reader that wants to know what it is.
constexpr std::int64_t kApplication = 0x4B705270;

/// What makes each version of the schema out of the one before; the first out of nothing. Never
/// changed once released, only added to.
constexpr const char* kMigrations[] = {
    "PRAGMA application_id=0x4B705270;"
    "CREATE TABLE items("
    " rid INTEGER PRIMARY KEY,"
    " parent INTEGER NOT NULL,"
    " name BLOB NOT NULL,"
    " kind INTEGER NOT NULL,"
    " content INTEGER NOT NULL,"
    " content_changed INTEGER NOT NULL,"
    " size INTEGER NOT NULL,"
    " modified INTEGER NOT NULL,"
    " mode INTEGER,"
    " attributes BLOB,"
    " removed INTEGER NOT NULL,"
    " local_only INTEGER NOT NULL,"
    " pinned INTEGER NOT NULL,"
    " last_use INTEGER NOT NULL,"
    " listed_at INTEGER NOT NULL,"
    " base_identifier BLOB,"
    " base_parent INTEGER,"
    " base_name BLOB,"
    " base_version BLOB,"
    " base_version_known INTEGER,"
    " base_size INTEGER,"
    " base_date INTEGER,"
    " base_capabilities INTEGER,"
    " failure_class INTEGER,"
    " failure_domain BLOB,"
    " failure_code INTEGER,"
    " failure_text BLOB,"
    " failure_since INTEGER,"
    " failure_next INTEGER,"
    " failure_tries INTEGER,"
    " sent_content INTEGER,"
    " sent_size INTEGER,"
    " sent_at INTEGER,"
    " sent_parent INTEGER,"
    " sent_name BLOB"
    ") STRICT;"
    "CREATE TABLE numbers(next INTEGER NOT NULL) STRICT;"
    "INSERT INTO numbers VALUES(2);",
    "ALTER TABLE items ADD COLUMN send_after INTEGER NOT NULL DEFAULT 0;",
    "ALTER TABLE items ADD COLUMN changed INTEGER;"
    "ALTER TABLE items ADD COLUMN accessed INTEGER;",
    "CREATE TABLE history("
    " content INTEGER PRIMARY KEY,"
    " item INTEGER NOT NULL,"
    " path BLOB NOT NULL,"
    " version BLOB NOT NULL,"
    " size INTEGER NOT NULL,"
    " modified INTEGER NOT NULL,"
    " reason INTEGER NOT NULL,"
    " at INTEGER NOT NULL,"
    " confirmed INTEGER NOT NULL"
    ") STRICT;"
    "CREATE INDEX history_by_age ON history(confirmed,at,content);",
};
constexpr std::int64_t kNewest = std::size(kMigrations);

[[noreturn]] void refuse(const Database& database, int number, const char* reason) {
  throw NSError(NSPOSIXErrorDomain, number,
                {{std::string(NSLocalizedDescriptionKey), database.path() + ": " + reason},
                 {std::string(NSFilePathErrorKey), database.path()}});
}

std::int64_t versionOf(Database& database) {
  const auto version = database.number("PRAGMA user_version");
  const auto application = database.number("PRAGMA application_id");
  const auto tables = database.number("SELECT count(*) FROM sqlite_schema");
  const bool isNew = version == 0 && tables == 0;
  if (!isNew && (application != kApplication || version < 1)) {
    refuse(database, EIO, "this is no database of the replica");
  }
  if (version > kNewest) {
    refuse(database, ENOTSUP, "a later version of the program has written this database");
  }
  return version;
}

/// Throws when the file's structure is damaged. Reads all of it.
void checkWhole(Database& database) {
  Statement check(database, "PRAGMA quick_check(1)");
  if (check.step() && check.bytes(0) == "ok") return;
  refuse(database, EIO, "the database is damaged");
}

}  // namespace

std::unique_ptr<Database> openReplicaDatabase(const std::string& path) {
  auto database = std::make_unique<Database>(path);
  auto version = versionOf(*database);
  checkWhole(*database);
  // So that it can be compacted in steps.
  if (version == 0) database->execute("PRAGMA auto_vacuum=INCREMENTAL");
  database->beginLogging();
  while (version < kNewest) {
    const std::string step = std::string("BEGIN IMMEDIATE;") + kMigrations[version] +
                             "PRAGMA user_version=" + std::to_string(version + 1) + ";COMMIT;";
    database->execute(step.c_str());
    ++version;
  }
  return database;
}

std::unique_ptr<Database> readReplicaDatabase(const std::string& path) {
  auto database = Database::openToRead(path);
  if (!database) return nullptr;
  const auto version = versionOf(*database);
  if (version == 0) return nullptr;
  // Never committed.
  database->execute("BEGIN");
  for (auto next = version; next < kNewest; ++next) database->execute(kMigrations[next]);
  return database;
}

}  // namespace kestrowan::replica
