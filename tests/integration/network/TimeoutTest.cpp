#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <fstream>

#include "NetworkTest.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::test {
namespace {

NSURLRequest impatient(NSURLRequest request, double seconds = 1) {
  request.timeoutInterval = seconds;
  return request;
}

/// For requests that must not time out even on a busy machine.
constexpr double kPatience = 4;

std::int64_t errorFor(const std::string& script) {
  ScriptedServer server(script);
  Client client(server);
  return errorOf(client.session().dataTask(impatient(client.request("GET", "/")),
                                           std::make_shared<TestReceiver>()));
}

TEST(TimeoutTest, SilenceInAnyPhaseIsATimeout) {
  EXPECT_EQ(errorFor(R"({"mode": "silent"})"), NSURLErrorTimedOut);
  EXPECT_EQ(errorFor(R"({"responses": [{"holdFor": "never"}]})"), NSURLErrorTimedOut);
  EXPECT_EQ(errorFor(R"({"responses": [{"pauseAt": 20, "pauseFor": "never"}]})"),
            NSURLErrorTimedOut);
  EXPECT_EQ(errorFor(R"({"responses": [{"fill": 100000, "pauseAt": 50000, "pauseFor": "never"}]})"),
            NSURLErrorTimedOut);
  EXPECT_EQ(errorFor(R"({"responses": [{"interim": [100], "pauseAt": 25, "pauseFor": "never"}]})"),
            NSURLErrorTimedOut);
}

TEST(TimeoutTest, ServerThatDoesNotReadAnUploadIsATimeout) {
  ScriptedServer server(R"({"responses": [{"holdBodyFor": "never"}]})");
  Client client(server);
  const TemporaryDirectory directory;
  const std::string path = directory.path() + "/file";
  std::ofstream(path).flush();
  ASSERT_EQ(::truncate(path.c_str(), 64 * 1024 * 1024), 0);
  EXPECT_EQ(errorOf(client.session().uploadTask(impatient(client.request("PUT", "/")),
                                                NSURL::fileURLWithPath(path))),
            NSURLErrorTimedOut);
}

TEST(TimeoutTest, DripThatOutlastsTheTimeoutGoesOn) {
  // Head and body, a byte each tenth of a second, take longer than the time-out.
  ScriptedServer server(R"({"responses": [{"body": "0123456789", "dripSeconds": 0.1}]})");
  Client client(server);
  const auto receiver = std::make_shared<TestReceiver>();
  resultOf(client.session().dataTask(impatient(client.request("GET", "/"), kPatience), receiver));
  EXPECT_EQ(receiver->body(), "0123456789");
}

TEST(TimeoutTest, WaitingForAConnectionDoesNotCount) {
  ScriptedServer server(R"({"routes": {"GET /held": {"holdFor": "go"},
                                       "GET /never": {"holdFor": "never"}}})");
  Client client(server);
  Client other(server);
  std::vector<std::future<std::shared_ptr<const NSURLResponse>>> held;
  for (int i = 0; i < 64; ++i) {
    held.push_back(started(client.session().dataTask(client.request("GET", "/held"), nullptr)));
  }
  auto waiting = started(
      client.session().dataTask(impatient(client.request("GET", "/waiting"), kPatience), nullptr));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(errorOf(other.session().dataTask(
                  impatient(other.request("GET", "/never"), kPatience * 0.6), nullptr)),
              NSURLErrorTimedOut);
  }
  server.release("go");
  EXPECT_EQ(Client::statusOf(waiting.get()), 200);
  for (auto& response : held) EXPECT_EQ(Client::statusOf(response.get()), 200);
}

TEST(TimeoutTest, PlaceOfASilentRequestGoesToTheNextAtOnce) {
  ScriptedServer server(R"({"routes": {"GET /silent": {"holdFor": "never"}}})");
  Client client(server);
  std::vector<std::future<std::shared_ptr<const NSURLResponse>>> silent;
  for (int i = 0; i < 8; ++i) {
    silent.push_back(
        started(client.session().dataTask(impatient(client.request("GET", "/silent")), nullptr)));
  }
  // Nothing else runs or comes once the silent ones have failed.
  std::vector<std::future<std::shared_ptr<const NSURLResponse>>> waiting;
  for (int i = 0; i < 20; ++i) {
    waiting.push_back(started(client.session().dataTask(client.request("GET", "/next"), nullptr)));
  }
  for (auto& each : waiting) {
    ASSERT_EQ(each.wait_for(std::chrono::minutes(1)), std::future_status::ready);
    EXPECT_EQ(Client::statusOf(each.get()), 200);
  }
  for (auto& each : silent) EXPECT_EQ(errorOf(each), NSURLErrorTimedOut);
}

}  // namespace
}  // namespace kestrowan::test
