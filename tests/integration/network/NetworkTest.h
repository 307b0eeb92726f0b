#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/network/NSURLSession.h"
#include "support/ScriptedServer.h"
#include "support/TaskResult.h"

namespace kestrowan::test {

/// Trusts servers with one certificate, or does as it is told; counts what it is asked.
class TestDelegate : public NSURLSessionDelegate {
 public:
  using Decision = std::function<NSURLSessionAuthChallengeDisposition(
      NSURLSession&, const NSURLAuthenticationChallenge&)>;

  explicit TestDelegate(NSData pinnedDER) : pinnedDER_(std::move(pinnedDER)) {}
  explicit TestDelegate(Decision decision) : decision_(std::move(decision)) {}

  void urlSession(NSURLSession& session, const NSURLAuthenticationChallenge& challenge,
                  const NSURLSessionChallengeHandler& completionHandler) override {
    {
      std::lock_guard lock(mutex_);
      methods_.push_back(challenge.protectionSpace.authenticationMethod);
      chain_.clear();
      if (const auto& trust = challenge.protectionSpace.serverTrust) {
        const auto chain = SecTrustCopyCertificateChain(*trust);
        for (const auto& certificate : *chain)
          chain_.push_back(SecCertificateCopyData(certificate));
      }
    }
    auto disposition = NSURLSessionAuthChallengeDisposition::cancelAuthenticationChallenge;
    if (decision_) {
      disposition = decision_(session, challenge);
    } else if (!chain_.empty() && chain_.front() == pinnedDER_) {
      disposition = NSURLSessionAuthChallengeDisposition::useCredential;
    }
    completionHandler(disposition, NSURLCredential{challenge.protectionSpace.serverTrust});
  }

  std::vector<std::string> methods() const {
    std::lock_guard lock(mutex_);
    return methods_;
  }
  /// Of the last challenge, the leaf first.
  std::vector<NSData> chain() const {
    std::lock_guard lock(mutex_);
    return chain_;
  }

 private:
  const NSData pinnedDER_;
  const Decision decision_;
  mutable std::mutex mutex_;
  std::vector<std::string> methods_;
  std::vector<NSData> chain_;
};

/// Keeps a body, and what is said of how it must arrive.
class TestReceiver : public NSURLSessionDataReceiver {
 public:
  void didReceiveData(std::string_view data) override {
    if (inside_.exchange(true)) overlapped_ = true;
    thread_ = std::this_thread::get_id();
    body_.append(data);
    ++pieces_;
    inside_ = false;
  }

  const std::string& body() const { return body_; }
  int pieces() const { return pieces_; }
  std::thread::id thread() const { return thread_; }
  bool overlapped() const { return overlapped_; }

 private:
  std::atomic<bool> inside_ = false;
  std::atomic<bool> overlapped_ = false;
  std::string body_;
  int pieces_ = 0;
  std::thread::id thread_;
};

/// A session that trusts a server, with what a test needs around it.
class Client {
 public:
  explicit Client(const ScriptedServer& server, HTTPHeaders headers = {})
      : Client(server, std::make_shared<TestDelegate>(server.pinnedDER()), std::move(headers)) {}
  Client(const ScriptedServer& server, std::shared_ptr<TestDelegate> delegate,
         HTTPHeaders headers = {})
      : server_(server), delegate_(std::move(delegate)) {
    auto configuration = NSURLSessionConfiguration::ephemeralSessionConfiguration();
    configuration.HTTPAdditionalHeaders = std::move(headers);
    session_ = NSURLSession::session(configuration, delegate_);
  }

  NSURLSession& session() { return *session_; }
  TestDelegate& delegate() { return *delegate_; }
  std::shared_ptr<NSURLSession> takeSession() { return std::move(session_); }

  NSURLRequest request(std::string_view method, std::string_view path, HTTPHeaders headers = {}) {
    NSURLRequest request{server_.url(path)};
    request.httpMethod = method;
    request.headers = std::move(headers);
    return request;
  }

  /// The status and the body of the answer to a GET.
  std::pair<std::int64_t, std::string> get(std::string_view path) {
    const auto receiver = std::make_shared<TestReceiver>();
    const auto response = resultOf(session_->dataTask(request("GET", path), receiver));
    return {statusOf(response), receiver->body()};
  }

  static std::int64_t statusOf(const std::shared_ptr<const NSURLResponse>& response) {
    return dynamic_cast<const NSHTTPURLResponse&>(*response).statusCode();
  }

 private:
  const ScriptedServer& server_;
  std::shared_ptr<TestDelegate> delegate_;
  std::shared_ptr<NSURLSession> session_;
};

/// The code of the `NSURLErrorDomain` error that a task ends with; 0 when it succeeds.
template <typename T>
std::int64_t errorOf(std::future<T>& result) {
  try {
    result.get();
  } catch (const NSError& error) {
    EXPECT_EQ(error.domain(), NSURLErrorDomain);
    return error.code();
  }
  return 0;
}

template <typename T>
std::int64_t errorOf(Task<T> task) {
  auto result = started(std::move(task));
  return errorOf(result);
}

}  // namespace kestrowan::test
