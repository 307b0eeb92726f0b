#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrowan::replica {

/// The folder "recovery" in a replica's directory, in which earlier versions kept what now is in
/// the history, in files named by a date and the item's name.

/// One of its files.
struct FormerFile {
  /// The whole path.
  std::string path;
  /// Without the date; empty where the item's was not known.
  std::string name;
  /// Seconds since 1970-01-01 UTC: when it was put there.
  std::int64_t at = 0;
  /// Bytes; and nanoseconds since 1970-01-01 UTC.
  std::int64_t size = 0;
  std::int64_t modified = 0;
  /// It is of a database that was lost.
  bool isOfLostDatabase = false;
};

/// The regular files in the folder and in folders in it; none where there is no such folder, or it
/// cannot be read.
std::vector<FormerFile> formerRecovery(const std::string& directory);

/// Removes the folder with the folders in it, as far as they are empty.
void removeFormerRecovery(const std::string& directory);

}  // namespace kestrowan::replica
