#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/network/NSURLSession.h"

namespace kestrowan::test {

/// What the fake server got: "METHOD URL", the headers as "Name: value", and an upload's body.
struct SentRequest {
  std::string line;
  std::vector<std::string> headers;
  double timeoutInterval = 0;
  std::optional<std::string> body;
};

/// What the fake server answers: a response, or a transport error.
struct Answer {
  std::int64_t status = 207;
  std::string body = {};
  std::optional<NSError> error = std::nullopt;
};

/// Stands for the network: every session made while it lives records its requests here and gives
/// the answers in the order in which they were added; a request without one fails with
/// `NSURLErrorCannotConnectToHost`. Usable from every thread.
class FakeNetwork {
 public:
  FakeNetwork();
  FakeNetwork(const FakeNetwork&) = delete;
  FakeNetwork& operator=(const FakeNetwork&) = delete;
  ~FakeNetwork();

  void answer(Answer answer);
  std::vector<SentRequest> requests() const;
  /// The request lines, their URLs without scheme, host and port.
  std::vector<std::string> lines() const;
  /// The configurations of the sessions that were made.
  std::vector<NSURLSessionConfiguration> configurations() const;

  /// Called with each request before it is answered, on the thread that sends it.
  void beforeAnswer(std::function<void(const SentRequest&)> hook);
  /// A response that is not of HTTP is given instead of every further answer.
  void answerWithoutHTTP();

 private:
  class Session;
  struct State;
  std::shared_ptr<State> state_;
};

/// A multistatus body around `responses`.
std::string multistatus(const std::string& responses);
/// One response element.
std::string response(const std::string& href, const std::string& properties = "");

}  // namespace kestrowan::test
