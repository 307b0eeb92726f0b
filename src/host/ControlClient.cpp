#include "host/ControlClient.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <string_view>

#include "host/LocalAddress.h"
#include "mount/DescribedError.h"
#include "platform/base/UniqueFd.h"

namespace kestrowan::host {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kLongestReply = std::size_t{64} << 20;  // bytes

class Connection {
 public:
  Connection(const std::string& path, std::chrono::milliseconds limit)
      : deadline_(Clock::now() + limit),
        socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    const LocalAddress address(path);
    while (::connect(socket_.get(), address.get(), address.size()) != 0) {
      if (errno == EINTR) continue;
      // The host's queue of connections is full.
      if (errno != EAGAIN) throw describedError(ECONNREFUSED, "no mount answers");
      ::poll(nullptr, 0, 20);
      if (Clock::now() >= deadline_) throwTimeout();
    }
    if (!peerIsThisUser(socket_.get())) {
      throw describedError(EACCES, "another user's process answers in the mount's place");
    }
  }

  void send(std::string_view text) {
    while (!text.empty()) {
      const auto count = ::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL);
      if (count > 0) {
        text.remove_prefix(static_cast<std::size_t>(count));
      } else {
        waitFor(POLLOUT);
      }
    }
  }

  std::string receiveLine() {
    std::string line;
    std::array<char, 65536> buffer;
    while (line.size() <= kLongestReply) {
      const auto count = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
      if (count == 0) break;
      if (count < 0) {
        waitFor(POLLIN);
        continue;
      }
      line.append(buffer.data(), static_cast<std::size_t>(count));
      if (line.back() == '\n') return line;
    }
    throw describedError(ECONNRESET, "the mount ended before it answered");
  }

 private:
  /// After a call that failed: waits until it can be tried again.
  void waitFor(short event) {
    if (errno == EINTR) return;
    if (errno != EAGAIN) throw describedError(ECONNRESET, "the mount ended before it answered");
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now());
    pollfd awaited{socket_.get(), event, 0};
    if (left.count() <= 0 || ::poll(&awaited, 1, static_cast<int>(left.count())) == 0) {
      throwTimeout();
    }
  }

  [[noreturn]] static void throwTimeout() {
    throw describedError(ETIMEDOUT, "the mount did not answer in time");
  }

  const Clock::time_point deadline_;
  const UniqueFd socket_;
};

NSError errorIn(const JSONValue& form) {
  const auto* domain = form.member("domain");
  const auto* code = form.member("code");
  const auto* text = form.member("text");
  if (domain == nullptr || domain->string() == nullptr || code == nullptr ||
      code->integer() == nullptr || text == nullptr || text->string() == nullptr) {
    return describedError(EBADMSG, "the mount answered with an error of unknown form");
  }
  return NSError(*domain->string(), *code->integer(),
                 {{std::string(NSLocalizedDescriptionKey), *text->string()}});
}

}  // namespace

JSONValue askHost(const std::string& path, const JSONValue& request,
                  std::chrono::milliseconds limit) {
  Connection connection(path, limit);
  connection.send(request.serialized() + "\n");
  auto reply = JSONValue::parse(connection.receiveLine());
  if (!reply) throw describedError(EBADMSG, "the mount's answer is no JSON");
  if (const auto* error = reply->member("error")) throw errorIn(*error);
  return *std::move(reply);
}

}  // namespace kestrowan::host
