#pragma once

#include <string>

#include <sys/types.h>

#include "mount/FormerMode.h"
#include "platform/base/UniqueFd.h"

namespace kestrowan::mount {

/// The type under which the system's table of mounts has ours.
inline constexpr const char* kMountType = "fuse.kestrowan";

/// Gives the folder of a mount whose host died the mode back that it had, as the state directory
/// remembers it. Does nothing when there is nothing to give back, or the mount still lies there.
void restoreMountPoint(const std::string& stateDirectory);

/// The folder that a mount is laid over, found fit for it.
class MountPoint {
 public:
  /// Resolves `path`, and frees it of a mount of ours whose program has died. Throws `NSError` of
  /// `NSPOSIXErrorDomain`, with a text that says what to do, unless it is then an empty folder that
  /// belongs to `owner`, on which no mount lies, and which is apart from `stateDirectory` (not
  /// looked at when empty). Does not wait for a mount that does not answer.
  MountPoint(const std::string& path, uid_t owner, const std::string& stateDirectory);

  /// Throws EINVAL, as the constructor does, when one of the two lies in the other. Neither need be
  /// there.
  static void checkApart(const std::string& path, const std::string& stateDirectory);

  /// Absolute, without symbolic links.
  const std::string& path() const { return path_; }

  /// Lets the owner mount here, which takes the right to write. The mode from before is remembered
  /// in the state directory first. Throws `NSError`.
  void open();
  /// Takes that right away again, so that nothing is written beneath while nobody serves. Works
  /// on the folder itself, also while a mount lies on it.
  void seal();
  /// Gives the folder its former mode back, once no mount lies on it.
  void restore();

 private:
  const std::string path_;
  const std::string stateDirectory_;
  UniqueFd folder_;
  FormerMode former_;
};

}  // namespace kestrowan::mount
