#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/UniqueFd.h"
#include "replica/Records.h"

namespace kestrowan::replica {

/// The files with the items' contents, named by numbers alone; and the recovery area, where
/// contents go that nobody must lose and no item has any more. Directories are mode 0700, files
/// 0600; nothing is opened through a symbolic link. Usable from every thread, for different
/// numbers at once. Everything throws `NSError` of `NSPOSIXErrorDomain`. Sizes are bytes.
class ContentFiles {
 public:
  /// Uses, or makes, the directories "contents", "recovery" and "temporary" in `directory`.
  explicit ContentFiles(const std::string& directory);

  std::string path(ContentNumber number) const;

  /// A new empty file. For reading and writing, as are the next two.
  UniqueFd create(ContentNumber number);
  UniqueFd open(ContentNumber number) const;
  /// Bytes that the contents take on the disk; nothing for contents that are not there.
  std::optional<std::int64_t> allocated(ContentNumber number) const;
  /// A copy of the contents behind `source`, sharing blocks where the file system can and keeping
  /// holes. Leaves nothing behind when it fails.
  UniqueFd clone(int source, ContentNumber number);
  /// Takes the regular file at `file`, by renaming it where that can be, as the contents.
  void adopt(ContentNumber number, const std::string& file);
  /// Does nothing for contents that are not there.
  void remove(ContentNumber number);
  /// The same for who cannot be told of a failure; what stays is found at the next start.
  void removeIfPossible(ContentNumber number) noexcept;
  std::vector<ContentNumber> numbers() const;
  /// Makes durable that the contents made so far are there; what is in them has to be made durable
  /// by itself.
  void syncNames();
  /// Makes everything durable, whoever wrote it.
  void syncAll();

  /// Moves contents to the recovery area, under a name made of `at` (seconds since 1970-01-01 UTC),
  /// and as much of `name` as a file system takes; gives the whole path.
  std::string recover(ContentNumber number, std::string_view name, std::int64_t at);
  /// Moves all contents to one folder of their own in the recovery area, which stays there until a
  /// person removes it; gives its path.
  std::string recoverAll(std::int64_t at);
  /// Removes the oldest recovered files beyond `bytes` in sum, and those from before `before`
  /// (seconds since 1970-01-01 UTC). Reads the recovery area.
  void trimRecovery(std::int64_t bytes, std::int64_t before);
  struct Usage {
    std::int64_t files = 0;
    std::int64_t bytes = 0;
  };
  /// What lies in the recovery area, as far as this object knows: exact when the area was read
  /// last, and kept up with what it put there and took away since. Reads no disk.
  Usage recoveryUsage() const;
  /// How often the recovery area has been read.
  std::int64_t readingsOfRecovery() const { return recoveryReadings_; }

  /// A private directory on the same file system, for files that `adopt` will take. Emptied by the
  /// constructor.
  const std::string& temporaryDirectory() const { return temporary_; }
  /// Removes what lies in the temporary directory and was last changed before `before` (seconds
  /// since 1970-01-01 UTC).
  void sweepTemporary(std::int64_t before);

  struct Space {
    std::int64_t capacity = 0;
    std::int64_t free = 0;
  };
  /// Of the file system that the contents lie on.
  Space space() const;

 private:
  std::string contents_;
  std::string recovery_;
  std::string temporary_;
  /// How many contents were made, and how many of these are known to be durable by name.
  std::atomic<std::uint64_t> made_ = 1;
  std::atomic<std::uint64_t> durable_ = 0;

  struct RecoveredFile {
    /// Seconds since 1970-01-01 UTC.
    std::int64_t at = 0;
    std::string path;
    std::int64_t size = 0;
  };
  std::vector<RecoveredFile> readRecovery();
  void addRecovered(std::int64_t files, std::int64_t bytes);

  mutable std::mutex usageMutex_;  // guards what follows
  Usage recoveryUsage_;
  std::atomic<std::int64_t> recoveryReadings_ = 0;
};

}  // namespace kestrowan::replica
