#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kestrowan::mount {

/// One line of the system's table of mounts.
struct MountEntry {
  /// The number of the file system's device, as "0:47".
  std::string device;
  /// Absolute.
  std::string path;
  /// "fuse.kestrowan", "ext4" and the like.
  std::string type;

  friend bool operator==(const MountEntry&, const MountEntry&) = default;
};

/// The mount that is seen at exactly `path` (absolute, resolved): the last of those that lie on
/// each other there. Touches no file system. Throws `NSError` when the table cannot be read.
std::optional<MountEntry> mountAt(std::string_view path);

/// The same, of a table in the format of /proc/self/mountinfo.
std::optional<MountEntry> mountAt(std::string_view path, std::string_view table);

}  // namespace kestrowan::mount
