#pragma once

#include <string>

namespace kestrowan::host {

/// The folder that a mount is to be laid over, before anything else of a host is made: freed of the
/// mount of a host that died, and made when it is missing. One that was made and never kept is
/// removed again.
class MountFolder {
 public:
  /// `path` and `stateDirectory` are absolute; the latter need not be there. Throws `NSError` with
  /// a text for a person when a mount cannot be made there.
  MountFolder(const std::string& path, const std::string& stateDirectory);
  MountFolder(const MountFolder&) = delete;
  MountFolder& operator=(const MountFolder&) = delete;
  ~MountFolder();

  /// It has borne a mount: it stays.
  void keep() { isMade_ = false; }

 private:
  const std::string path_;
  bool isMade_ = false;
};

}  // namespace kestrowan::host
