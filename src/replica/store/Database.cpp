#include "replica/store/Database.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <string_view>
#include <utility>

#include "platform/base/UniqueFd.h"
#include "replica/store/Statement.h"
#include "replica/store/StoreFiles.h"
#include "replica/store/WriteAheadLog.h"

namespace kestrowan::replica {

namespace {

constexpr mode_t kPrivateFile = S_IRUSR | S_IWUSR;
constexpr mode_t kForOthers = S_IRWXG | S_IRWXO;

// The log is moved to the file when it has grown to 16 MiB, and never stays longer than that.
constexpr const char* kSettings =
    "PRAGMA locking_mode=EXCLUSIVE;"
    "PRAGMA trusted_schema=OFF;"
    "PRAGMA cell_size_check=ON;"
    "PRAGMA secure_delete=FAST;"
    "PRAGMA temp_store=MEMORY;"
    "PRAGMA cache_size=-2048;";
constexpr const char* kLogSettings =
    "PRAGMA synchronous=NORMAL;"
    "PRAGMA wal_autocheckpoint=4096;"
    "PRAGMA journal_size_limit=16777216;";

/// Makes an empty file of the right mode where there is none. An existing one is not opened, since
/// closing it would give up the locks that this process may have on it.
void prepareFile(const std::string& path) {
  struct stat status;
  if (::lstat(path.c_str(), &status) == 0) {
    if (!S_ISREG(status.st_mode)) throw fileError(EINVAL, path);
    if ((status.st_mode & kForOthers) != 0 && ::chmod(path.c_str(), kPrivateFile) != 0) {
      throw fileError(errno, path);
    }
    return;
  }
  const UniqueFd file(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kPrivateFile));
  if (!file) throw fileError(errno, path);
}

/// The value of `errno` that tells best what SQLite's `code` means. `system` is what the system
/// said last, or 0.
int posixNumber(int code, int system) {
  switch (code & 0xFF) {
    case SQLITE_FULL:
      return ENOSPC;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return EBUSY;
    case SQLITE_READONLY:
      return EROFS;
    case SQLITE_NOMEM:
      return ENOMEM;
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return EACCES;
    case SQLITE_CANTOPEN:
      return system != 0 ? system : EIO;
    case SQLITE_IOERR:
      return system == ENOSPC || system == EDQUOT || system == EROFS ? system : EIO;
    default:
      return EIO;
  }
}

}  // namespace

Database::Database(std::string path) : path_(std::move(path)) {
  prepareFile(path_);
  const int code = ::sqlite3_open_v2(path_.c_str(), &connection_,
                                     SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX |
                                         SQLITE_OPEN_PRIVATECACHE | SQLITE_OPEN_EXRESCODE,
                                     nullptr);
  try {
    if (code != SQLITE_OK) fail(code);
    ::sqlite3_db_config(connection_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    execute(kSettings);
  } catch (const NSError&) {
    ::sqlite3_close(connection_);
    throw;
  }
}

std::unique_ptr<Database> Database::openToRead(const std::string& path) {
  struct stat status;
  if (::lstat(path.c_str(), &status) != 0 && errno == ENOENT) return nullptr;
  const bool hasLog = ::lstat((path + "-wal").c_str(), &status) == 0;
  auto database = std::make_unique<Database>(path);
  // Closing removes the one that opening made.
  if (hasLog) database->leaveLog();
  return database;
}

Database::~Database() {
  ::sqlite3_close(connection_);
  if (isLogging_) WriteAheadLog::keepRoom(logPath());
}

void Database::execute(const char* statements) {
  const int code = ::sqlite3_exec(connection_, statements, nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) fail(code);
}

std::int64_t Database::number(const char* statement) {
  Statement query(*this, statement);
  if (!query.step()) fail(SQLITE_CORRUPT);
  return query.number(0).value_or(0);
}

void Database::beginLogging() {
  Statement change(*this, "PRAGMA journal_mode=WAL");
  if (!change.step() || change.bytes(0) != "wal") throw fileError(ENOTSUP, path_);
  change.reset();
  execute(kLogSettings);
  int isKept = 1;
  const int code = ::sqlite3_file_control(connection_, "main", SQLITE_FCNTL_PERSIST_WAL, &isKept);
  if (code != SQLITE_OK) fail(code);
  isLogging_ = true;
}

void Database::leaveLog() {
  const int code = ::sqlite3_db_config(connection_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  if (code != SQLITE_OK) fail(code);
}

bool Database::isInTransaction() const {
  return ::sqlite3_get_autocommit(connection_) == 0;
}

void Database::fail(int code) const {
  const int system = connection_ ? ::sqlite3_system_errno(connection_) : 0;
  const bool isLast = connection_ && ::sqlite3_extended_errcode(connection_) == code;
  const std::string text = isLast ? ::sqlite3_errmsg(connection_) : ::sqlite3_errstr(code);
  throw NSError(NSPOSIXErrorDomain, posixNumber(code, system),
                {{std::string(NSLocalizedDescriptionKey), path_ + ": " + text},
                 {std::string(NSFilePathErrorKey), path_}});
}

}  // namespace kestrowan::replica
