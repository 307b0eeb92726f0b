#pragma once

#include <chrono>
#include <cstdint>

namespace kestrowan {

/// As `socket` gives it, but not inherited by programs that are started later.
int openSocketCloseOnExec(int family, int type, int protocol);

/// Has the peer, a program on this machine, send little that is not read, as one far away would:
/// about a mebibyte, and not four. To be called before the socket is connected.
void keepPeerNear(int socket);

/// What the system knows of the traffic of a TCP socket.
struct CurlTraffic {
  /// Bytes received and bytes sent that the peer has acknowledged, so far. Counts handshakes, so it
  /// grows whenever a connection makes any progress.
  std::uint64_t bytesMoved = 0;
  /// Since the peer last sent anything; 0 where the system does not tell.
  std::chrono::milliseconds quietFor{0};
};

/// The traffic of `socket` so far; none for what is no TCP socket.
CurlTraffic trafficOf(int socket);

/// Whether anything, the peer's closing included, waits to be read from `socket`.
bool hasInput(int socket);

}  // namespace kestrowan
