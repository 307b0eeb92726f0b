#include "platform/linux/CurlSocket.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace kestrowan {

std::uint64_t bytesMoved(int socket) {
  tcp_info info{};
  socklen_t size = sizeof info;
  if (socket < 0 || ::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return 0;
  return info.tcpi_bytes_received + info.tcpi_bytes_acked;
}

bool hasInput(int socket) {
  pollfd entry{socket, POLLIN | POLLRDHUP, 0};
  return ::poll(&entry, 1, 0) != 0;
}

}  // namespace kestrowan
