#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <latch>
#include <new>
#include <set>

#include "NetworkTest.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/foundation/SHA256.h"
#include "platform/network/TransferMonitor.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::test {
namespace {

constexpr std::size_t kMostConnections = 24;

std::size_t threadCount() {
  return static_cast<std::size_t>(
      std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

TEST(SessionTest, ThousandsOfRequestsShareFewConnectionsAndOneThread) {
  constexpr int kRequests = 2000;
  ScriptedServer server(R"({"responses": [{"status": 207, "body": "x", "holdFor": "go"}]})");
  Client client(server);
  resultOf(Task<void>([]() -> Task<void> { co_return; }()));
  const auto threadsBefore = threadCount();
  std::vector<std::shared_ptr<TestReceiver>> receivers;
  std::vector<std::future<std::shared_ptr<const NSURLResponse>>> responses;
  for (int i = 0; i < kRequests; ++i) {
    receivers.push_back(std::make_shared<TestReceiver>());
    responses.push_back(started(client.session().dataTask(
        client.request("PROPFIND", "/" + std::to_string(i)), receivers.back())));
  }
  server.waitForRequests(2);
  EXPECT_EQ(threadCount(), threadsBefore + 1);
  server.release("go");
  for (auto& response : responses) EXPECT_EQ(Client::statusOf(response.get()), 207);
  std::set<std::string> targets;
  for (const auto& request : server.requests()) targets.insert(request.target);
  EXPECT_EQ(targets.size(), std::size_t{kRequests});
  EXPECT_EQ(server.requests().size(), std::size_t{kRequests});
  EXPECT_GT(server.eventCount("connected"), 1u);
  EXPECT_LE(server.eventCount("connected"), kMostConnections);
  EXPECT_EQ(client.delegate().methods().size(), server.eventCount("connected"));
  for (const auto& receiver : receivers) {
    EXPECT_EQ(receiver->body(), "x");
    EXPECT_EQ(receiver->pieces(), 1);
  }
}

TEST(SessionTest, SlowAnswersDoNotKeepOtherRequestsWaiting) {
  ScriptedServer server(R"({"responses": [{"holdFor": "go"}]})");
  Client client(server);
  std::vector<std::future<NSURLSessionDownload>> downloads;
  for (int i = 0; i < 10; ++i) {
    downloads.push_back(started(client.session().downloadTask(client.request("GET", "/file"))));
  }
  server.waitForRequests(10);
  server.release("go");
  for (auto& download : downloads) std::remove(download.get().location.path().c_str());
}

TEST(SessionTest, FilesInFlightLetRequestsPass) {
  ScriptedServer server(R"({"routes": {"GET /file": {"holdFor": "go"}}})");
  Client client(server);
  std::vector<std::future<NSURLSessionDownload>> downloads;
  for (std::size_t i = 0; i < 2 * kMostConnections; ++i) {
    downloads.push_back(started(client.session().downloadTask(client.request("GET", "/file"))));
  }
  server.waitForRequests(1);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(client.get("/small").first, 200);
  server.release("go");
  for (auto& download : downloads) std::remove(download.get().location.path().c_str());
}

TEST(SessionTest, BodyArrivesInOrderOnExecutorThreadsOneCallAtATime) {
  ScriptedServer server(R"({"responses": [{"repeat": {"each": "%d,", "count": 500000}}]})");
  Client client(server);
  std::string expected;
  for (int i = 0; i < 500000; ++i) expected += std::to_string(i) + ",";
  const auto receiver = std::make_shared<TestReceiver>();
  resultOf(client.session().dataTask(client.request("GET", "/"), receiver));
  EXPECT_TRUE(receiver->body() == expected);
  EXPECT_FALSE(receiver->overlapped());
  EXPECT_GT(receiver->pieces(), 1);
  EXPECT_LT(receiver->pieces(), 200);
  EXPECT_NE(receiver->thread(), std::this_thread::get_id());
}

/// Blocks in its first call until it is released.
class SlowReceiver : public NSURLSessionDataReceiver {
 public:
  void didReceiveData(std::string_view data) override {
    if (size_ == 0) {
      entered_.count_down();
      released_.wait();
    }
    size_ += data.size();
  }
  void waitUntilEntered() { entered_.wait(); }
  void release() { released_.count_down(); }
  std::size_t size() const { return size_; }

 private:
  std::latch entered_{1};
  std::latch released_{1};
  std::size_t size_ = 0;
};

TEST(SessionTest, SlowReceiverHoldsTheBodyBackAtTheServer) {
  constexpr std::int64_t kSize = 50'000'000;
  // The piece that the receiver has, and one that waits.
  constexpr std::int64_t kMostHeld = 3'000'000;
  constexpr std::int64_t kFull = 1024 * 1024;
  ScriptedServer server(R"({"routes": {"GET /big": {"fill": 50000000},
                                       "GET /held": {"holdFor": "never"}}})");
  Client client(server);
  const auto receiver = std::make_shared<SlowReceiver>();
  auto big = client.request("GET", "/big");
  big.timeoutInterval = 4;
  auto response = started(client.session().dataTask(big, receiver));
  receiver->waitUntilEntered();
  const auto held = [] {
    std::int64_t bytes = 0;
    for (const auto& each : TransferMonitor::shared().transfers()) bytes += each.bytesReceived;
    return bytes;
  };
  while (held() < kFull) std::this_thread::yield();
  // Time passes, and other requests are served, while this one waits for its reader.
  for (int i = 0; i < 2; ++i) {
    auto request = client.request("GET", "/held");
    request.timeoutInterval = 2.5;
    EXPECT_EQ(errorOf(client.session().dataTask(request, nullptr)), NSURLErrorTimedOut);
  }
  EXPECT_LT(held(), kMostHeld);
  receiver->release();
  EXPECT_EQ(Client::statusOf(response.get()), 200);
  EXPECT_EQ(receiver->size(), static_cast<std::size_t>(kSize));
}

TEST(SessionTest, ReleasedSessionCancelsWhatIsInFlight) {
  const TemporaryDirectory directory;
  ScriptedServer server(
      R"({"responses": [{"fill": 1000000, "pauseAt": 500000, "pauseFor": "x"}]})");
  ::setenv("TMPDIR", directory.path().c_str(), 1);
  std::vector<std::future<std::shared_ptr<const NSURLResponse>>> responses;
  std::vector<std::future<NSURLSessionDownload>> downloads;
  {
    Client client(server);
    for (int i = 0; i < 30; ++i) {
      responses.push_back(started(
          client.session().dataTask(client.request("GET", "/"), std::make_shared<TestReceiver>())));
      downloads.push_back(started(client.session().downloadTask(client.request("GET", "/"))));
      responses.push_back(started(client.session().uploadTask(
          client.request("PUT", "/"), NSURL::fileURLWithPath("/etc/hostname"))));
    }
    server.waitForRequests(5);
  }
  for (auto& response : responses) EXPECT_EQ(errorOf(response), NSURLErrorCancelled);
  for (auto& download : downloads) EXPECT_EQ(errorOf(download), NSURLErrorCancelled);
  EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
  ::unsetenv("TMPDIR");
}

TEST(SessionTest, ThreadThatEndsLeavesNothingOfItsLibrariesBehind) {
  // Once it is deleted, OpenSSL has the values of a thread under a lower key than its destructor.
  pthread_key_t lower;
  ASSERT_EQ(::pthread_key_create(&lower, nullptr), 0);
  ScriptedServer server(R"({})");
  sha256Text("makes the library ready");
  ::pthread_key_delete(lower);
  Client client(server);
  EXPECT_EQ(client.get("/").first, 200);
  // What is left is found at the end of the process.
}

/// Starts `task` for a caller that may stop waiting.
template <typename T>
std::future<T> startedFor(const std::shared_ptr<Abandonment>& caller, Task<T> task) {
  const AbandonmentScope scope(caller);
  return started(std::move(task));
}

TEST(SessionTest, RequestThatNothingWaitsForIsNotSent) {
  ScriptedServer server(R"({"routes": {"GET /held": {"holdFor": "go"}}})");
  Client client(server);
  std::vector<std::future<std::shared_ptr<const NSURLResponse>>> held;
  for (std::size_t i = 0; i < kMostConnections; ++i) {
    held.push_back(started(client.session().dataTask(client.request("GET", "/held"), nullptr)));
  }
  server.waitForRequests(kMostConnections);
  const auto caller = std::make_shared<Abandonment>();
  auto removal =
      startedFor(caller, client.session().dataTask(client.request("DELETE", "/a"), nullptr));
  auto upload =
      startedFor(caller, client.session().uploadTask(client.request("PUT", "/a"),
                                                     NSURL::fileURLWithPath("/etc/hostname")));
  auto listing = startedFor(caller, client.session().dataTask(client.request("PROPFIND", "/a"),
                                                              std::make_shared<TestReceiver>()));
  auto wanted = started(client.session().dataTask(client.request("GET", "/wanted"), nullptr));
  caller->declare();
  // They fail while every place is still taken.
  EXPECT_EQ(errorOf(removal), NSURLErrorCancelled);
  EXPECT_EQ(errorOf(upload), NSURLErrorCancelled);
  EXPECT_EQ(errorOf(listing), NSURLErrorCancelled);
  auto late =
      startedFor(caller, client.session().dataTask(client.request("DELETE", "/b"), nullptr));
  EXPECT_EQ(errorOf(late), NSURLErrorCancelled);
  server.release("go");
  for (auto& response : held) EXPECT_EQ(Client::statusOf(response.get()), 200);
  EXPECT_EQ(Client::statusOf(wanted.get()), 200);
  for (const auto& request : server.requests()) EXPECT_EQ(request.method, "GET");
}

TEST(SessionTest, RequestIsNotSentOnAConnectionThatComesTooLate) {
  ScriptedServer server(R"({"mode": "silent"})");
  Client client(server);
  const auto caller = std::make_shared<Abandonment>();
  auto removal =
      startedFor(caller, client.session().dataTask(client.request("DELETE", "/a"), nullptr));
  server.waitForEvents("connected", 1);
  caller->declare();
  EXPECT_EQ(errorOf(removal), NSURLErrorCancelled);
}

TEST(SessionTest, CallerThatStopsWaitingGivesItsPlacesBack) {
  const TemporaryDirectory directory;
  ScriptedServer server(R"({"routes": {
      "GET /held": {"fill": 1000000, "pauseAt": 500000, "pauseFor": "never"}}})");
  ::setenv("TMPDIR", directory.path().c_str(), 1);
  Client client(server);
  const auto caller = std::make_shared<Abandonment>();
  std::vector<std::future<NSURLSessionDownload>> files;
  std::vector<std::future<std::shared_ptr<const NSURLResponse>>> held;
  for (std::size_t i = 0; i < kMostConnections; ++i) {
    files.push_back(
        startedFor(caller, client.session().downloadTask(client.request("GET", "/held"))));
    held.push_back(startedFor(caller, client.session().dataTask(client.request("GET", "/held"),
                                                                std::make_shared<TestReceiver>())));
  }
  server.waitForRequests(kMostConnections);
  auto next = started(client.session().dataTask(client.request("GET", "/next"), nullptr));
  caller->declare();
  EXPECT_EQ(Client::statusOf(next.get()), 200);
  for (auto& file : files) EXPECT_EQ(errorOf(file), NSURLErrorCancelled);
  for (auto& response : held) EXPECT_EQ(errorOf(response), NSURLErrorCancelled);
  EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
  ::unsetenv("TMPDIR");
}

/// Has no memory for a body.
class PoorReceiver : public NSURLSessionDataReceiver {
 public:
  void didReceiveData(std::string_view) override { throw std::bad_alloc(); }
};

TEST(SessionTest, ReceiverThatFailsGivesItsPlaceBack) {
  ScriptedServer server(R"({"routes": {"GET /big": {"fill": 100000000000}}})");
  Client client(server);
  for (std::size_t i = 0; i < 2 * kMostConnections; ++i) {
    try {
      resultOf(client.session().dataTask(client.request("GET", "/big"),
                                         std::make_shared<PoorReceiver>()));
      FAIL() << "no error";
    } catch (const NSError& error) {
      EXPECT_TRUE(error.is(NSPOSIXErrorDomain, ENOMEM));
    }
  }
  EXPECT_EQ(client.get("/small").first, 200);
}

/// Runs out of memory whenever a file is to be made.
class PoorFileManager : public NSFileManager {
 public:
  std::optional<NSURL> containerURL(std::string_view) override { return std::nullopt; }
  NSURL temporaryDirectory() override { throw std::bad_alloc(); }
  NSData contents(const NSURL&) override { return {}; }
  bool createFile(const NSURL&, std::string_view) override { return false; }
  void moveItem(const NSURL&, const NSURL&) override {}
  void removeItem(const NSURL&) override {}
  std::optional<std::int64_t> fileSize(const NSURL&) override { return std::nullopt; }
  std::size_t maximumNameLength(const NSURL&) override { return 255; }
};

TEST(SessionTest, WantOfMemoryFailsTheRequestThatNeedsIt) {
  ScriptedServer server;
  Client client(server);
  NSFileManager::setDefaultManager(std::make_shared<PoorFileManager>());
  for (std::size_t i = 0; i < 2 * kMostConnections; ++i) {
    EXPECT_EQ(errorOf(client.session().downloadTask(client.request("GET", "/file"))),
              NSURLErrorUnknown);
  }
  NSFileManager::setDefaultManager(nullptr);
  EXPECT_EQ(client.get("/").first, 200);
  EXPECT_EQ(server.requests().size(), 1u);
}

TEST(SessionTest, SessionMayBeReleasedByItsDelegate) {
  ScriptedServer server(R"({"responses": [{"holdFor": "never"}]})");
  std::shared_ptr<NSURLSession> session;
  const auto delegate = std::make_shared<TestDelegate>(
      [&session](NSURLSession&, const NSURLAuthenticationChallenge&) {
        session.reset();
        return NSURLSessionAuthChallengeDisposition::useCredential;
      });
  session = NSURLSession::session({}, delegate);
  auto response = started(session->dataTask({server.url("/")}, nullptr));
  EXPECT_EQ(errorOf(response), NSURLErrorCancelled);
}

TEST(SessionTest, TaskOfAReleasedSessionIsCancelled) {
  ScriptedServer server;
  const auto delegate = std::make_shared<TestDelegate>(server.pinnedDER());
  auto session = NSURLSession::session({}, delegate);
  auto task = session->dataTask({server.url("/")}, std::make_shared<TestReceiver>());
  session.reset();
  EXPECT_EQ(errorOf(std::move(task)), NSURLErrorCancelled);
  EXPECT_EQ(server.eventCount("connected"), 0u);
}

TEST(SessionTest, UnusedSessionStartsNothing) {
  const auto before = threadCount();
  const auto session = NSURLSession::session({}, {});
  const NSURLRequest request{NSURL::URLWithString("https://127.0.0.1:443/")};
  { const auto neverAwaited = session->dataTask(request, nullptr); }
  EXPECT_EQ(threadCount(), before);
}

TEST(SessionTest, FactoryReplacesThePlatformsSessions) {
  int calls = 0;
  NSURLSession::setFactory(
      [&calls](const NSURLSessionConfiguration&, std::weak_ptr<NSURLSessionDelegate>) {
        ++calls;
        return std::shared_ptr<NSURLSession>();
      });
  EXPECT_EQ(NSURLSession::session({}, {}), nullptr);
  NSURLSession::setFactory({});
  EXPECT_NE(NSURLSession::session({}, {}), nullptr);
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace kestrowan::test
