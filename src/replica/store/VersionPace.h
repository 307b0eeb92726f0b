#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "replica/Records.h"

namespace kestrowan::replica {

/// How often versions of one file are kept while programs here save it again and again: one a
/// minute, and so rarely that copying them takes at most a twentieth of the time. What came from
/// the provider is no such version, and always kept. Not thread-safe. Times are milliseconds of a
/// clock that is never set.
class VersionPace {
 public:
  /// A program here began to write these contents.
  void noteWritten(ContentNumber content, std::int64_t now);
  /// Whether that was within the last minute.
  bool isSave(ContentNumber content, std::int64_t now) const;

  bool isDue(const std::string& path, std::int64_t now) const;
  /// A version was kept, by a copy that took `cost`.
  void noteKept(const std::string& path, std::int64_t now, std::int64_t cost = 0);
  /// None was kept after all.
  void forget(const std::string& path) { next_.erase(path); }
  /// How many files and contents are remembered.
  std::size_t size() const { return next_.size() + written_.size(); }

 private:
  /// When the next version is due, by the file's path.
  std::unordered_map<std::string, std::int64_t> next_;
  std::size_t roomUntilSweep_ = 0;
  /// Until when contents are a save.
  std::unordered_map<ContentNumber, std::int64_t> written_;
  std::size_t writtenUntilSweep_ = 0;
};

}  // namespace kestrowan::replica
