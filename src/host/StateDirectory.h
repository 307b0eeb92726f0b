#pragma once

#include <string>

#include "platform/base/UniqueFd.h"

namespace kestrowan::host {

/// The directory with everything that one domain's host keeps on disk, held by this host alone
/// while the object lives. Mode 0700; never reached through a symbolic link. The lock ends with the
/// process, however it ends. A directory that this object made is removed with it unless it was
/// kept or holds contents.
class StateDirectory {
 public:
  /// Uses, or makes, the directory at `path` (absolute). Throws `NSError` of `NSPOSIXErrorDomain`
  /// with a text for a person: EBUSY when another host holds it, EACCES when others may write in
  /// it, ENOTEMPTY when it holds something else than a host's state, and what the file system says.
  explicit StateDirectory(std::string path);
  StateDirectory(const StateDirectory&) = delete;
  StateDirectory& operator=(const StateDirectory&) = delete;
  ~StateDirectory();

  const std::string& path() const { return path_; }
  /// A mount has been served from it: it stays.
  void keep() { isMade_ = false; }
  /// Whether it lies on another machine's disk, where locks and synchronisation are less sure.
  bool isRemote() const;

 private:
  void tighten() const;
  void lock();
  void remove() const;

  const std::string path_;
  bool isMade_;
  const UniqueFd directory_;
  UniqueFd lock_;
};

/// Whether a file system of that type (as `statfs` has it) keeps its files on another machine.
bool isRemoteFileSystem(unsigned long type);

}  // namespace kestrowan::host
