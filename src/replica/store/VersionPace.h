#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

namespace kestrowan::replica {

/// How often versions of one file are kept while it is saved again and again: one a minute, and so
/// rarely that copying them takes at most a twentieth of the time. Not thread-safe. Times are
/// milliseconds of a clock that is never set.
class VersionPace {
 public:
  bool isDue(const std::string& path, std::int64_t now) const;
  /// A version was kept, by a copy that took `cost`.
  void noteKept(const std::string& path, std::int64_t now, std::int64_t cost = 0);
  /// None was kept after all.
  void forget(const std::string& path) { next_.erase(path); }
  /// How many files are remembered.
  std::size_t size() const { return next_.size(); }

 private:
  /// When the next version is due, by the file's path.
  std::unordered_map<std::string, std::int64_t> next_;
  std::size_t roomUntilSweep_ = 0;
};

}  // namespace kestrowan::replica
