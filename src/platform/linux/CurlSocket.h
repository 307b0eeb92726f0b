#pragma once

#include <cstdint>

namespace kestrowan {

/// As `socket` gives it, but not inherited by programs that are started later.
int openSocketCloseOnExec(int family, int type, int protocol);

/// Bytes that a TCP socket has received and has had acknowledged so far; 0 for what is no TCP
/// socket. Counts handshakes, so it grows whenever a connection makes any progress.
std::uint64_t bytesMoved(int socket);

/// Whether anything, the peer's closing included, waits to be read from `socket`.
bool hasInput(int socket);

}  // namespace kestrowan
