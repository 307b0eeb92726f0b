#include "host/ControlSocket.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "host/LocalAddress.h"
#include "mount/DescribedError.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::host {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kBacklog = 64;

/// A listening socket that nobody could reach with other permissions than its own.
UniqueFd listenAt(const std::string& path) {
  const auto shown = escapedForDisplay(path);
  const LocalAddress address(path);
  UniqueFd listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!listening) throw systemError(errno, shown);
  // The mode of a socket is that of its descriptor at the time of the binding.
  if (::fchmod(listening.get(), S_IRUSR | S_IWUSR) != 0) throw systemError(errno, shown);
  ::unlink(path.c_str());
  if (::bind(listening.get(), address.get(), address.size()) != 0 ||
      ::chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0 || ::listen(listening.get(), kBacklog) != 0) {
    throw systemError(errno, shown);
  }
  return listening;
}

/// The first line from `socket`; nothing when it does not come in time, or is too long.
std::optional<std::string> receiveLine(int socket, Clock::time_point deadline) {
  std::string line;
  std::array<char, 4096> buffer;
  while (Clock::now() < deadline && line.size() <= ControlSocket::kLongestRequest) {
    const auto count = ::recv(socket, buffer.data(), buffer.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return std::nullopt;
    line.append(buffer.data(), static_cast<std::size_t>(count));
    if (const auto end = line.find('\n'); end != std::string::npos) {
      line.resize(end);
      if (line.size() > ControlSocket::kLongestRequest) break;
      return line;
    }
  }
  return std::nullopt;
}

void sendAll(int socket, std::string_view text, Clock::time_point deadline) {
  while (!text.empty() && Clock::now() < deadline) {
    const auto count = ::send(socket, text.data(), text.size(), MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
}

}  // namespace

ControlSocket::ControlSocket(std::string path, Handler handler, std::chrono::milliseconds patience)
    : path_(std::move(path)),
      handler_(std::move(handler)),
      patience_(patience),
      listening_(listenAt(path_)),
      stop_(::eventfd(0, EFD_CLOEXEC)) {
  if (!stop_) throw systemError(errno, "control socket");
  thread_ = std::thread([this] { run(); });
}

ControlSocket::~ControlSocket() {
  const std::uint64_t one = 1;
  while (::write(stop_.get(), &one, sizeof one) < 0 && errno == EINTR) {
  }
  thread_.join();
  ::unlink(path_.c_str());
  // Nobody waits any longer for a request that has not come yet.
  for (auto& connection : connections_) ::shutdown(connection.socket.get(), SHUT_RD);
  for (auto& connection : connections_) connection.thread.join();
}

void ControlSocket::run() {
  std::array<pollfd, 2> awaited = {{{stop_.get(), POLLIN, 0}, {listening_.get(), POLLIN, 0}}};
  while (true) {
    const int count = ::poll(awaited.data(), awaited.size(), -1);
    if (count < 0 && errno == EINTR) continue;
    if (awaited[0].revents != 0) return;
    reap();
    accept();
  }
}

void ControlSocket::accept() {
  UniqueFd socket(::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  if (!socket) {
    // Without a descriptor left the connection stays waiting: not at full speed.
    if (errno == EMFILE || errno == ENFILE) std::this_thread::sleep_for(patience_ / 10);
    return;
  }
  if (!peerIsThisUser(socket.get())) return;
  limitWaits(socket.get(), static_cast<int>(patience_.count()));
  if (connections_.size() >= kMostConnections) {
    sendAll(socket.get(),
            errorReply(describedError(EBUSY, "too many requests at once")).serialized() + "\n",
            Clock::now() + patience_);
    return;
  }
  auto& connection = connections_.emplace_back();
  connection.socket = std::move(socket);
  connection.thread = std::thread([this, &connection] {
    serve(connection);
    ::shutdown(connection.socket.get(), SHUT_RDWR);
    connection.ended = true;
  });
}

void ControlSocket::serve(Connection& connection) const {
  const auto line = receiveLine(connection.socket.get(), Clock::now() + patience_);
  JSONValue reply;
  try {
    if (!line) throw describedError(EMSGSIZE, "no request of at most 64 KiB came in time");
    const auto request = JSONValue::parse(*line);
    if (!request || request->object() == nullptr) {
      throw describedError(EBADMSG, "the request is no JSON object");
    }
    reply = handler_(*request);
  } catch (const NSError& error) {
    reply = errorReply(error);
  }
  sendAll(connection.socket.get(), reply.serialized() + "\n", Clock::now() + patience_);
}

/// Lets go of connections that have ended.
void ControlSocket::reap() {
  for (auto connection = connections_.begin(); connection != connections_.end();) {
    if (!connection->ended) {
      ++connection;
      continue;
    }
    connection->thread.join();
    connection = connections_.erase(connection);
  }
}

JSONValue errorReply(const NSError& error) {
  return JSONValue::Object{{"error", JSONValue::Object{{"domain", error.domain()},
                                                       {"code", error.code()},
                                                       {"text", error.localizedDescription()}}}};
}

}  // namespace kestrowan::host
