#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "platform/base/UniqueFd.h"
#include "platform/linux/CurlSocket.h"

namespace kestrowan::test {
namespace {

/// Connects a socket that `prepare` has had to a listener on this machine, and gives the segment
/// size with which the listener's side sends, in bytes.
int peerSegment(void (*prepare)(int socket)) {
  const UniqueFd listener(openSocketCloseOnExec(AF_INET, SOCK_STREAM, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const place = reinterpret_cast<sockaddr*>(&address);
  EXPECT_EQ(::bind(listener.get(), place, size), 0);
  EXPECT_EQ(::listen(listener.get(), 1), 0);
  EXPECT_EQ(::getsockname(listener.get(), place, &size), 0);

  const UniqueFd socket(openSocketCloseOnExec(AF_INET, SOCK_STREAM, 0));
  prepare(socket.get());
  EXPECT_EQ(::connect(socket.get(), place, size), 0);
  const UniqueFd peer(::accept(listener.get(), nullptr, nullptr));
  int segment = 0;
  socklen_t length = sizeof segment;
  EXPECT_EQ(::getsockopt(peer.get(), IPPROTO_TCP, TCP_MAXSEG, &segment, &length), 0);
  return segment;
}

TEST(SocketTest, PeerThatIsKeptNearSendsSmallSegments) {
  EXPECT_GT(peerSegment([](int) {}), 16 * 1024);
  EXPECT_LE(peerSegment(keepPeerNear), 1460);
}

TEST(SocketTest, WhatIsNoSocketIsLeftAlone) {
  keepPeerNear(-1);
}

}  // namespace
}  // namespace kestrowan::test
