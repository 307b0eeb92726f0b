#include "host/MountFolder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "host/StaleMount.h"
#include "mount/DescribedError.h"
#include "mount/MountPoint.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::host {

MountFolder::MountFolder(const std::string& path, const std::string& stateDirectory) : path_(path) {
  // The lock of the host that died tells more surely than its mount, which may still seem alive.
  if (const auto left = hostThatLeft(path_, "/")) removeLeftMount(*left);
  mount::MountPoint::checkApart(path_, stateDirectory);
  if (::mkdir(path_.c_str(), S_IRWXU) == 0) {
    isMade_ = true;
  } else if (errno == ENOENT) {
    throw systemError(errno, escapedForDisplay(path_));
  }
  // A folder that was just made fits. Whose the state directory is is not known yet, so that it is
  // left alone.
  if (!isMade_) mount::MountPoint(path_, ::geteuid(), {});
}

MountFolder::~MountFolder() {
  if (isMade_) ::rmdir(path_.c_str());
}

}  // namespace kestrowan::host
