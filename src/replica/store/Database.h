#pragma once

#include <cstdint>
#include <memory>
#include <string>

struct sqlite3;

namespace kestrowan::replica {

/// One connection to one SQLite database: a file of mode 0600 that nobody else can open meanwhile,
/// with a write-ahead log. Not thread-safe. Everything throws `NSError` of `NSPOSIXErrorDomain`
/// with a text that names the file.
class Database {
 public:
  /// Opens the file at `path`, or makes an empty one.
  explicit Database(std::string path);
  /// Opens the file at `path` to be looked at: neither it nor its log changes when it is closed.
  /// Null when there is none.
  static std::unique_ptr<Database> openToRead(const std::string& path);
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;
  ~Database();

  /// Runs statements that give nothing, or nothing of interest.
  void execute(const char* statements);
  /// The number that is a statement's answer.
  std::int64_t number(const char* statement);

  /// Keeps what is committed in a log beside the file, which is cheap, and moves it to the file
  /// from time to time. Done by the owner once it knows that the file is its own. The log stays,
  /// empty and with the room that it has, when the database is closed.
  void beginLogging();
  /// Leaves the log as it is when the database is closed, instead of moving it to the file.
  void leaveLog();
  const std::string& path() const { return path_; }
  std::string logPath() const { return path_ + "-wal"; }

  /// Whether a transaction is open; some errors end one.
  bool isInTransaction() const;

  /// Throws the error of a call that gave `code`.
  [[noreturn]] void fail(int code) const;

  sqlite3* connection() const { return connection_; }

 private:
  const std::string path_;
  sqlite3* connection_ = nullptr;
  bool isLogging_ = false;
};

}  // namespace kestrowan::replica
