#include "host/ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "platform/base/UniqueFd.h"

namespace kestrowan::host {

bool tellServiceManager(std::string_view state) {
  const char* value = std::getenv("NOTIFY_SOCKET");
  if (value == nullptr) return false;
  const std::string_view name = value;
  sockaddr_un address{};
  if (name.size() < 2 || name.size() >= sizeof address.sun_path ||
      (name.front() != '/' && name.front() != '@')) {
    return false;
  }
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, name.data(), name.size());
  // An abstract name begins with NUL and is as long as the address says.
  if (name.front() == '@') address.sun_path[0] = '\0';
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());

  const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket) return false;
  ssize_t sent;
  do {
    sent = ::sendto(socket.get(), state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                    reinterpret_cast<const sockaddr*>(&address), size);
  } while (sent < 0 && errno == EINTR);
  return sent == static_cast<ssize_t>(state.size());
}

}  // namespace kestrowan::host
