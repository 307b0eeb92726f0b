#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "platform/base/UniqueFd.h"

namespace kestrowan::replica {

/// Makes what a database has in its write-ahead log durable, beside the connection that writes it:
/// whatever is committed lies in the log, or has been moved to the file, which the connection syncs
/// before it begins the log anew. Usable from every thread.
class WriteAheadLog {
 public:
  /// The file must be there, and stay the same for the life of this object. Throws `NSError`.
  explicit WriteAheadLog(std::string path);

  /// Sets some of the disk aside for the log, where the file system can: what gives space back,
  /// such as removing a file, has to be noted when the disk is full.
  void keepRoom() noexcept;
  /// The same for a log that no database has open, so that the next one finds it.
  static void keepRoom(const std::string& path) noexcept;
  /// Tells of one more commit.
  void noteCommit() { ++commits_; }
  /// Makes every commit that was noted durable. Throws `NSError`, from the first failure on always:
  /// what the disk then lost, it would not report again.
  void sync();

 private:
  const std::string path_;
  const UniqueFd file_;
  std::atomic<std::uint64_t> commits_ = 1;
  std::atomic<std::uint64_t> durable_ = 0;
  std::atomic<int> failure_ = 0;
};

}  // namespace kestrowan::replica
