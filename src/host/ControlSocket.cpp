#include "host/ControlSocket.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <utility>

#include "host/LocalAddress.h"
#include "mount/DescribedError.h"
#include "platform/base/Threads.h"
#include "platform/foundation/CaughtError.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::host {

namespace {

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

void wake(int event) {
  const std::uint64_t one = 1;
  while (::write(event, &one, sizeof one) < 0 && errno == EINTR) {
  }
}

NSError noRequestError() {
  return describedError(EMSGSIZE, "no request of at most 64 KiB came in time");
}

}  // namespace

ControlSocket::ControlSocket(std::string path, Handler handler, std::chrono::milliseconds patience,
                             Lanes lanes)
    : path_(std::move(path)),
      handler_(std::move(handler)),
      patience_(patience),
      lanes_(std::move(lanes)),
      listening_(listenAt(path_)),
      wakeUp_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wakeUp_) throw systemError(errno, "control socket");
  thread_ = startThread("the control socket", [this] { run(); });
}

ControlSocket::~ControlSocket() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake(wakeUp_.get());
  thread_.join();
  ::unlink(path_.c_str());
}

void ControlSocket::run() {
  bool stopping = false;
  while (!stopping || !clients_.empty()) {
    // What fails for want of memory is tried again when some client has given its place back.
    if (!guarded("the control socket", [&] { turn(stopping); })) letGoOfSilent();
  }
}

/// Waits for something to happen, and sees to it.
void ControlSocket::turn(bool& stopping) {
  {
    std::lock_guard lock(mutex_);
    stopping = stopping_;
  }
  if (stopping && clients_.empty()) return;
  std::vector<pollfd> awaited = {{wakeUp_.get(), POLLIN, 0},
                                 {stopping || isFull_ ? -1 : listening_.get(), POLLIN, 0}};
  for (const auto& client : clients_) {
    const bool works = client.state == State::working;
    const short events = client.state == State::reading ? POLLIN : POLLOUT;
    awaited.push_back({works ? -1 : client.socket.get(), events, 0});
  }
  isFull_ = false;
  if (::poll(awaited.data(), awaited.size(), millisecondsToWait(stopping)) < 0) return;
  takeAnswers();
  std::size_t place = 2;
  const auto now = Clock::now();
  for (auto client = clients_.begin(); client != clients_.end(); ++place) {
    bool stays = goOn(*client, awaited[place].revents);
    if (stays && client->state == State::reading && (stopping || now >= client->deadline)) {
      answer(*client, errorReply(noRequestError()));
      stays = write(*client);
    }
    if (client->state == State::writing && now >= client->deadline) stays = false;
    client = stays ? std::next(client) : clients_.erase(client);
  }
  if (awaited[1].revents != 0) accept();
}

int ControlSocket::millisecondsToWait(bool stopping) const {
  constexpr std::chrono::milliseconds kSoon{100};
  if (isFull_) return static_cast<int>(kSoon.count());
  auto first = Clock::time_point::max();
  for (const auto& client : clients_) {
    if (client.state == State::reading && stopping) return 0;
    if (client.state != State::working) first = std::min(first, client.deadline);
  }
  if (first == Clock::time_point::max()) return -1;
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(first - Clock::now());
  return static_cast<int>(std::max<std::int64_t>(wait.count(), 0));
}

void ControlSocket::accept() {
  UniqueFd socket(::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!socket) {
    // Without a descriptor left the connection stays waiting: not at full speed.
    isFull_ = (errno == EMFILE || errno == ENFILE) && !letGoOfSilent();
    return;
  }
  if (!peerIsThisUser(socket.get())) return;
  auto& client = clients_.emplace_back();
  client.socket = std::move(socket);
  client.number = ++lastNumber_;
  client.deadline = Clock::now() + patience_;
  if (clients_.size() <= kMostConnections || letGoOfSilent()) return;
  answer(client, errorReply(describedError(EBUSY, "too many requests at once")));
}

/// Closes the connection of the client that has said nothing for the longest time, the newest one
/// excepted. Whether there was one.
bool ControlSocket::letGoOfSilent() {
  for (auto client = clients_.begin(); client != clients_.end(); ++client) {
    if (client->state != State::reading || std::next(client) == clients_.end()) continue;
    clients_.erase(client);
    return true;
  }
  return false;
}

bool ControlSocket::goOn(Client& client, short events) {
  if (events == 0) return true;
  return client.state == State::reading ? read(client) : write(client);
}

bool ControlSocket::read(Client& client) {
  std::array<char, 4096> buffer;
  while (client.text.size() <= kLongestRequest) {
    const auto count = ::recv(client.socket.get(), buffer.data(), buffer.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) return true;
    if (count <= 0) break;
    client.text.append(buffer.data(), static_cast<std::size_t>(count));
    if (const auto end = client.text.find('\n'); end != std::string::npos) {
      if (end > kLongestRequest) break;
      begin(client, client.text.substr(0, end));
      return true;
    }
  }
  answer(client, errorReply(noRequestError()));
  return write(client);
}

/// Has a request carried out.
void ControlSocket::begin(Client& client, const std::string& line) {
  try {
    auto request = JSONValue::parse(line);
    if (!request || request->object() == nullptr) {
      throw describedError(EBADMSG, "the request is no JSON object");
    }
    const auto lane = lanes_ ? lanes_(*request) : ControlLane::waiting;
    workers_.give(lane, [this, number = client.number, request = *std::move(request)] {
      std::string reply;
      guarded("a request of the control socket", [&] { reply = replyTo(request); });
      finish(number, std::move(reply));
    });
    client.text.clear();
    client.state = State::working;
  } catch (...) {
    answer(client, errorReply(caughtError()));
  }
}

std::string ControlSocket::replyTo(const JSONValue& request) const {
  try {
    return handler_(request).serialized() + "\n";
  } catch (...) {
    return errorReply(caughtError()).serialized() + "\n";
  }
}

/// Hands an answer to the socket's thread; one that is empty closes the connection.
void ControlSocket::finish(std::uint64_t client, std::string reply) {
  untilThereIsMemory([&] {
    std::lock_guard lock(mutex_);
    answers_.emplace_back(client, std::move(reply));
  });
  wake(wakeUp_.get());
}

void ControlSocket::takeAnswers() {
  std::uint64_t count;
  while (::read(wakeUp_.get(), &count, sizeof count) > 0) {
  }
  std::vector<std::pair<std::uint64_t, std::string>> answers;
  {
    std::lock_guard lock(mutex_);
    answers.swap(answers_);
  }
  for (auto& [number, reply] : answers) {
    for (auto& client : clients_) {
      if (client.number != number) continue;
      client.text = std::move(reply);
      client.state = State::writing;
      client.deadline = Clock::now() + patience_;
    }
  }
}

void ControlSocket::answer(Client& client, const JSONValue& reply) {
  client.text = reply.serialized() + "\n";
  client.state = State::writing;
  client.deadline = Clock::now() + patience_;
}

bool ControlSocket::write(Client& client) {
  std::size_t sent = 0;
  while (sent < client.text.size()) {
    const auto count = ::send(client.socket.get(), client.text.data() + sent,
                              client.text.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) break;
    if (count <= 0) return false;
    sent += static_cast<std::size_t>(count);
  }
  client.text.erase(0, sent);
  return !client.text.empty();
}

JSONValue errorReply(const NSError& error) {
  return JSONValue::Object{{"error", JSONValue::Object{{"domain", error.domain()},
                                                       {"code", error.code()},
                                                       {"text", error.localizedDescription()}}}};
}

}  // namespace kestrowan::host
