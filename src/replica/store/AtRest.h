#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kestrowan::replica {

/// What is asked of, and done to, a replica that no host is using: the caller holds its lock. The
/// directory is absolute. Everything throws `NSError` as `TreeJournal` does.

/// What a replica keeps that is nowhere else.
struct Unsent {
  /// Items that differ from what the provider confirmed; and how many of them it refused for good,
  /// and are versions from here of files that both sides had changed.
  std::int64_t changes = 0;
  std::int64_t refused = 0;
  std::int64_t conflicts = 0;
  /// Files that stay here by their names.
  std::int64_t localOnly = 0;
  /// Contents in the history, those of earlier versions included.
  std::int64_t inHistory = 0;
  /// Of the first changes, from the root, each beginning with "/".
  std::vector<std::string> paths;

  bool isNothing() const { return changes == 0 && localOnly == 0 && inHistory == 0; }
};

/// Looks into it, and changes nothing. At most `most` paths are given.
Unsent unsentIn(const std::string& directory, std::size_t most);

/// Makes every listing count as old, so that no folder is taken as known without a new one. Durable
/// when it returns.
void ageListings(const std::string& directory);

}  // namespace kestrowan::replica
