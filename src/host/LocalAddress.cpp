#include "host/LocalAddress.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "mount/DescribedError.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::host {

LocalAddress::LocalAddress(const std::string& path) {
  address_.sun_family = AF_UNIX;
  std::string name = path;
  if (name.size() >= sizeof address_.sun_path) {
    const auto slash = path.rfind('/');
    const auto directory = path.substr(0, slash);
    directory_.reset(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory_) throw systemError(errno, escapedForDisplay(directory));
    name = "/proc/self/fd/" + std::to_string(directory_.get()) + path.substr(slash);
  }
  if (name.size() >= sizeof address_.sun_path) throw systemError(ENAMETOOLONG, name);
  std::memcpy(address_.sun_path, name.data(), name.size());
}

bool peerIsThisUser(int connection) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return ::getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
         peer.uid == ::geteuid();
}

}  // namespace kestrowan::host
