#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <optional>
#include <string>

namespace kestrowan::mount {

/// The mode that a mount point had before a mount was laid over it, kept in the state directory
/// until the folder has it again. A value.
struct FormerMode {
  /// The mode of a folder that bears a mount.
  static constexpr mode_t kSealed = S_IRUSR | S_IXUSR;

  std::string path;
  dev_t device = 0;
  ino_t inode = 0;
  mode_t mode = 0;

  /// What `stateDirectory` has; nothing when it has nothing, or nothing that makes sense.
  static std::optional<FormerMode> read(const std::string& stateDirectory);
  /// Throws `NSError` of `NSPOSIXErrorDomain`.
  void write(const std::string& stateDirectory) const;
  static void forget(const std::string& stateDirectory);

  /// Gives the mode to the open folder, if that is the same one and nobody has given it another
  /// since it was sealed.
  void restore(int folder) const;
};

}  // namespace kestrowan::mount
