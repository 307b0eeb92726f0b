#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <string>
#include <thread>

#include "platform/base/UniqueFd.h"
#include "platform/foundation/JSONValue.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::host {

/// The local socket on which a host answers commands of its own user while the object lives: one
/// request a connection, a JSON object on one line of at most 64 KiB, answered with one line.
/// Connections of other users are closed unanswered; one that is slow or silent ends after a while
/// and holds nobody else up. The socket is mode 0600.
class ControlSocket {
 public:
  /// Answers one request. Called on a thread of its own for each; may block. What it throws as
  /// `NSError` becomes the answer.
  using Handler = std::function<JSONValue(const JSONValue& request)>;

  /// How long a client may take to send its request, and to take the answer.
  static constexpr std::chrono::milliseconds kPatience{10000};
  static constexpr std::size_t kLongestRequest = 64 * 1024;  // bytes
  static constexpr std::size_t kMostConnections = 64;

  /// Replaces what lies at `path` (absolute), in a directory that is private. Throws `NSError` of
  /// `NSPOSIXErrorDomain` with a text for a person.
  ControlSocket(std::string path, Handler handler, std::chrono::milliseconds patience = kPatience);
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;
  /// Waits for the requests that are being answered.
  ~ControlSocket();

  const std::string& path() const { return path_; }

 private:
  struct Connection {
    UniqueFd socket;
    std::atomic<bool> ended = false;
    std::thread thread;
  };

  void run();
  void accept();
  void serve(Connection& connection) const;
  void reap();

  const std::string path_;
  const Handler handler_;
  const std::chrono::milliseconds patience_;
  UniqueFd listening_;
  UniqueFd stop_;
  std::list<Connection> connections_;
  std::thread thread_;
};

/// {"error": {domain, code, text}}
JSONValue errorReply(const NSError& error);

}  // namespace kestrowan::host
