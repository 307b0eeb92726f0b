#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/base/UniqueFd.h"
#include "platform/foundation/JSONValue.h"
#include "platform/foundation/NSData.h"
#include "platform/foundation/NSURL.h"

namespace kestrowan::test {

/// The HTTPS server of tests/support/scripted_server.py as a child process, which its owner ends.
/// What it sees arrives on a thread of its own; usable from every thread. Whatever waits throws
/// `std::runtime_error` when the server ends or nothing comes for a minute.
class ScriptedServer {
 public:
  /// One request as the server has read it.
  struct Request {
    std::int64_t connection = 0;
    std::string method;
    std::string target;
    /// Its first 64 KiB, the head included.
    std::string raw;
    std::int64_t bodyLength = 0;
    std::string bodySHA256;
    /// Whether the whole announced body was read.
    bool complete = false;
  };

  /// Starts it with a script in JSON, on one line or several.
  explicit ScriptedServer(std::string_view script = "{}");
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;
  ~ScriptedServer();

  int port() const { return port_; }
  /// An https URL of the server for an encoded path.
  NSURL url(std::string_view path) const;
  /// The certificates named "pinned" and "other".
  const NSData& pinnedDER() const { return pinnedDER_; }
  const NSData& otherDER() const { return otherDER_; }

  void release(std::string_view name);
  void replaceScript(std::string_view script);
  /// Breaks off all connections and waits until the server is rid of them.
  void disconnect();

  /// All that were read before the call.
  std::vector<Request> requests();
  std::vector<Request> waitForRequests(std::size_t count);
  /// How many events of a kind, such as "connected" or "secured", came before the call.
  std::size_t eventCount(std::string_view kind);
  void waitForEvents(std::string_view kind, std::size_t count) const;

 private:
  void readEvents();
  void synchronize();
  void send(const JSONValue& command);
  std::string readLine();
  void waitUntil(const std::function<bool()>& condition, std::string_view what) const;
  std::size_t countOf(std::string_view kind) const;

  pid_t child_ = -1;
  UniqueFd input_;
  UniqueFd output_;
  std::string unread_;
  int port_ = 0;
  NSData pinnedDER_;
  NSData otherDER_;
  std::thread reader_;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<JSONValue> events_;
  bool ended_ = false;
};

}  // namespace kestrowan::test
