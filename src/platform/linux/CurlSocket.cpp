#include "platform/linux/CurlSocket.h"

#ifdef __APPLE__
#include <netinet/tcp.h>
#else
#include <linux/tcp.h>
#endif
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace kestrowan {

void keepPeerNear(int socket) {
  // What the peer's system keeps for it to send grows with the size of a segment, which is 64 KiB
  // within a machine. It cuts larger pieces for a network only, so small segments cost nothing.
  constexpr int kSegmentBytes = 1460;
  // Enough where no answer is under way for long.
  constexpr int kReceiveBytes = 64 * 1024;
  // Without them all works, too.
  ::setsockopt(socket, IPPROTO_TCP, TCP_MAXSEG, &kSegmentBytes, sizeof kSegmentBytes);
  ::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &kReceiveBytes, sizeof kReceiveBytes);
}

#ifdef __APPLE__

int openSocketCloseOnExec(int family, int type, int protocol) {
  const int socket = ::socket(family, type, protocol);
  if (socket >= 0) ::fcntl(socket, F_SETFD, FD_CLOEXEC);
  return socket;
}

CurlTraffic trafficOf(int socket) {
  tcp_connection_info info{};
  socklen_t size = sizeof info;
  if (socket < 0 || ::getsockopt(socket, IPPROTO_TCP, TCP_CONNECTION_INFO, &info, &size) != 0) {
    return {};
  }
  return {info.tcpi_rxbytes + info.tcpi_txbytes, {}};
}

bool hasInput(int socket) {
  pollfd entry{socket, POLLIN, 0};
  return ::poll(&entry, 1, 0) != 0;
}

#else

int openSocketCloseOnExec(int family, int type, int protocol) {
  return ::socket(family, type | SOCK_CLOEXEC, protocol);
}

CurlTraffic trafficOf(int socket) {
  tcp_info info{};
  socklen_t size = sizeof info;
  if (socket < 0 || ::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return {};
  return {info.tcpi_bytes_received + info.tcpi_bytes_acked,
          std::chrono::milliseconds(info.tcpi_last_ack_recv)};
}

bool hasInput(int socket) {
  pollfd entry{socket, POLLIN | POLLRDHUP, 0};
  return ::poll(&entry, 1, 0) != 0;
}

#endif

}  // namespace kestrowan
