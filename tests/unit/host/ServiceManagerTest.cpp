#include "host/ServiceManager.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "ScopedVariable.h"
#include "platform/base/UniqueFd.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::host {
namespace {

/// A datagram socket of the name, an abstract one when it begins with "@".
UniqueFd listeningAt(const std::string& name) {
  UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, name.data(), name.size());
  if (name.front() == '@') address.sun_path[0] = '\0';
  EXPECT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address),
                   static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size())),
            0);
  return socket;
}

std::string received(const UniqueFd& socket) {
  char buffer[256];
  const auto count = ::recv(socket.get(), buffer, sizeof buffer, MSG_DONTWAIT);
  return std::string(buffer, count > 0 ? static_cast<std::size_t>(count) : 0);
}

TEST(ServiceManager, IsToldThroughItsSocket) {
  const test::TemporaryDirectory directory;
  const auto name = directory.path() + "/notify";
  const auto socket = listeningAt(name);
  const ScopedVariable variable("NOTIFY_SOCKET", name);
  EXPECT_TRUE(tellServiceManager("READY=1"));
  EXPECT_TRUE(tellServiceManager("STATUS=busy\nSTOPPING=1"));
  EXPECT_EQ(received(socket), "READY=1");
  EXPECT_EQ(received(socket), "STATUS=busy\nSTOPPING=1");
}

TEST(ServiceManager, IsToldThroughAnAbstractSocket) {
  const auto name = "@kestrowan-test-" + std::to_string(::getpid());
  const auto socket = listeningAt(name);
  const ScopedVariable variable("NOTIFY_SOCKET", name);
  EXPECT_TRUE(tellServiceManager("READY=1"));
  EXPECT_EQ(received(socket), "READY=1");
}

TEST(ServiceManager, WithoutOneNothingHappens) {
  for (const auto& value : {std::optional<std::string>(), std::optional<std::string>(""),
                            std::optional<std::string>("@"), std::optional<std::string>("relative"),
                            std::optional<std::string>("/nonexistent/notify"),
                            std::optional<std::string>("/" + std::string(200, 'x'))}) {
    const ScopedVariable variable("NOTIFY_SOCKET", value);
    EXPECT_FALSE(tellServiceManager("READY=1")) << value.value_or("unset");
  }
}

}  // namespace
}  // namespace kestrowan::host
