#pragma once

#include <string>

#include "platform/base/UniqueFd.h"

namespace kestrowan::host {

/// The directory with everything that one domain's host keeps on disk, held by this host alone
/// while the object lives. Mode 0700; never reached through a symbolic link. The lock ends with the
/// process, however it ends.
class StateDirectory {
 public:
  /// Uses, or makes, the directory at `path` (absolute). Throws `NSError` of `NSPOSIXErrorDomain`
  /// with a text for a person: EBUSY when another host holds it, EACCES when others may write in
  /// it, ENOTEMPTY when it holds something else than a host's state, and what the file system says.
  explicit StateDirectory(std::string path);

  const std::string& path() const { return path_; }
  /// Whether it lies on another machine's disk, where locks and synchronisation are less sure.
  bool isRemote() const;

 private:
  void tighten() const;
  void lock();

  const std::string path_;
  const UniqueFd directory_;
  UniqueFd lock_;
};

}  // namespace kestrowan::host
