#pragma once

#include <string>

#include <sys/types.h>

#include "platform/base/UniqueFd.h"

namespace kestrowan::mount {

/// The type under which the system's table of mounts has ours.
inline constexpr const char* kMountType = "fuse.kestrowan";

/// The folder that a mount is laid over, found fit for it.
class MountPoint {
 public:
  /// Resolves `path`, and frees it of a mount of ours whose program has died. Throws `NSError` of
  /// `NSPOSIXErrorDomain`, with a text that says what to do, unless it is then an empty folder that
  /// belongs to `owner`, on which no mount lies, and which is not within `stateDirectory` (not
  /// looked at when empty). Does not wait for a mount that does not answer.
  MountPoint(const std::string& path, uid_t owner, const std::string& stateDirectory);

  /// Absolute, without symbolic links.
  const std::string& path() const { return path_; }

  /// Lets the owner mount here, which takes the right to write.
  void open();
  /// Takes that right away again, so that nothing is written beneath when nothing is mounted. Works
  /// on the folder itself, also while a mount lies on it.
  void seal();

 private:
  std::string path_;
  UniqueFd folder_;
};

}  // namespace kestrowan::mount
