#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/UniqueFd.h"
#include "replica/Records.h"

namespace kestrowan::replica {

/// The files with the contents of items and of the history, named by numbers alone. Directories are
/// mode 0700, files 0600; nothing is opened through a symbolic link. Usable from every thread, for
/// different numbers at once. Everything throws `NSError` of `NSPOSIXErrorDomain`. Sizes are bytes.
class ContentFiles {
 public:
  /// Uses, or makes, the directories "contents" and "temporary" in `directory`.
  explicit ContentFiles(const std::string& directory);

  std::string path(ContentNumber number) const;

  /// A new empty file. For reading and writing, as are the next two.
  UniqueFd create(ContentNumber number);
  UniqueFd open(ContentNumber number) const;
  /// Nothing for contents that are not there.
  std::optional<std::int64_t> sizeOf(ContentNumber number) const;
  /// Bytes that the contents take on the disk; nothing for contents that are not there.
  std::optional<std::int64_t> allocated(ContentNumber number) const;
  /// Their size without their holes; nothing for contents that are not there.
  std::optional<std::int64_t> sizeOfData(ContentNumber number) const;
  /// A copy of the contents behind `source`, sharing blocks where the file system can and keeping
  /// holes. Leaves nothing behind when it fails.
  UniqueFd clone(int source, ContentNumber number);
  /// The same where blocks can be shared, or they take at most `most` bytes of the disk. Whether it
  /// was made.
  bool cloneCheaply(int source, ContentNumber number, std::int64_t most);
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
  /// Makes everything on the file system durable, what other programs wrote included.
  void syncAll();

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
  std::string temporary_;
  /// How many contents were made, and how many of these are known to be durable by name.
  std::atomic<std::uint64_t> made_ = 1;
  std::atomic<std::uint64_t> durable_ = 0;
};

}  // namespace kestrowan::replica
