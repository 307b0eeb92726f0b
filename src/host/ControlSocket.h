#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/ControlWorkers.h"
#include "platform/base/UniqueFd.h"
#include "platform/foundation/JSONValue.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::host {

/// The local socket on which a host answers commands of its own user while the object lives: one
/// request a connection, a JSON object on one line of at most 64 KiB, answered with one line.
/// Connections of other users are closed unanswered. One thread reads all requests and writes all
/// answers, so that a client that is slow or silent holds up no other; it is let go after a while,
/// or as soon as another one needs its place. The socket is mode 0600.
class ControlSocket {
 public:
  /// Answers one request. Called on a thread of the request's lane; may block. What it throws
  /// becomes the answer.
  using Handler = std::function<JSONValue(const JSONValue& request)>;
  /// Which places a request takes; called on the socket's own thread.
  using Lanes = std::function<ControlLane(const JSONValue& request)>;

  /// How long a client may take to send its request, and to take the answer.
  static constexpr std::chrono::milliseconds kPatience{10000};
  static constexpr std::size_t kLongestRequest = 64 * 1024;  // bytes
  /// Beyond so many connections the client that has said nothing for the longest time is let go.
  static constexpr std::size_t kMostConnections = 80;

  /// Replaces what lies at `path` (absolute), in a directory that is private. Throws `NSError` of
  /// `NSPOSIXErrorDomain` with a text for a person. Without `lanes` every request may wait.
  ControlSocket(std::string path, Handler handler, std::chrono::milliseconds patience = kPatience,
                Lanes lanes = {});
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;
  /// Waits for the requests that are being answered.
  ~ControlSocket();

  const std::string& path() const { return path_; }

 private:
  using Clock = std::chrono::steady_clock;
  enum class State : std::uint8_t { reading, working, writing };
  struct Client {
    UniqueFd socket;
    std::uint64_t number = 0;
    State state = State::reading;
    /// By when the request, or the answer, must be through.
    Clock::time_point deadline;
    /// What has come of the request, or what is left of the answer.
    std::string text;
  };
  using Clients = std::list<Client>;

  void run();
  void turn(bool& stopping);
  int millisecondsToWait(bool stopping) const;
  void accept();
  bool letGoOfSilent();
  /// These say whether the client stays.
  bool goOn(Client& client, short events);
  bool read(Client& client);
  bool write(Client& client);
  void begin(Client& client, const std::string& line);
  void answer(Client& client, const JSONValue& reply);
  std::string replyTo(const JSONValue& request) const;
  void takeAnswers();
  void finish(std::uint64_t client, std::string reply);

  const std::string path_;
  const Handler handler_;
  const std::chrono::milliseconds patience_;
  const Lanes lanes_;
  UniqueFd listening_;
  UniqueFd wakeUp_;
  // Used by the socket's thread alone, as are the next two. The oldest client comes first.
  Clients clients_;
  std::uint64_t lastNumber_ = 0;
  /// No descriptor was left for a connection.
  bool isFull_ = false;

  std::mutex mutex_;  // guards what follows
  bool stopping_ = false;
  /// Answers on their way to the socket's thread, by the client's number.
  std::vector<std::pair<std::uint64_t, std::string>> answers_;

  ControlWorkers workers_;
  std::thread thread_;
};

/// {"error": {domain, code, text}}
JSONValue errorReply(const NSError& error);

}  // namespace kestrowan::host
