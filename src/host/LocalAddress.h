#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include "platform/base/UniqueFd.h"

namespace kestrowan::host {

/// The address of the local socket at a path of any length: a path that is too long for an address
/// is reached through the directory's descriptor. Good while the object lives. Throws `NSError` of
/// `NSPOSIXErrorDomain` when the directory cannot be opened, ENAMETOOLONG when even the last
/// component does not fit.
class LocalAddress {
 public:
  explicit LocalAddress(const std::string& path);

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address_); }
  socklen_t size() const { return sizeof address_; }

 private:
  UniqueFd directory_;
  sockaddr_un address_{};
};

/// Whether the process at the other end of the connection belongs to this process's user.
bool peerIsThisUser(int connection);

}  // namespace kestrowan::host
