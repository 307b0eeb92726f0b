#include <gtest/gtest.h>

#include <fstream>

#include "NetworkTest.h"
#include "platform/network/FinishedTransfers.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::test {
namespace {

/// What the list of finished requests says of a request.
class FinishedTest : public testing::Test {
 protected:
  /// Of the request that `task` makes, when that has completed.
  template <typename Make>
  FinishedTransfer finished(Make make) {
    const auto caller = std::make_shared<Abandonment>();
    {
      const AbandonmentScope scope(caller);
      auto task = started(make());
      errorOf(task);
    }
    auto found = FinishedTransfers::shared().latestOf(caller);
    EXPECT_TRUE(found);
    return found.value_or(FinishedTransfer());
  }

  TemporaryDirectory directory_;
};

TEST_F(FinishedTest, TellsThePlaceTheAnswerAndTheBytesOfAListing) {
  ScriptedServer server(R"({"responses": [{"status": 207, "body": "12345"}]})");
  Client client(server, {{"Authorization", "Basic secret"}});
  const auto before = FinishedTransfers::Clock::now();
  const auto found = finished([&] {
    return client.session().dataTask(client.request("PROPFIND", "/a%20b/"),
                                     std::make_shared<TestReceiver>());
  });
  EXPECT_EQ(found.httpMethod, "PROPFIND");
  EXPECT_EQ(found.url, server.url("/a%20b/").absoluteString());
  EXPECT_EQ(found.httpStatus, 207);
  EXPECT_EQ(found.bytesReceived, 5);
  EXPECT_EQ(found.bytesSent, 0);
  EXPECT_EQ(found.errorCode, 0);
  EXPECT_GE(found.finishedAt, before);
  EXPECT_GE(found.duration.count(), 0);
  EXPECT_NE(found.body, nullptr);
}

TEST_F(FinishedTest, TellsWhatWasSentAndTheStatusThatRefusesIt) {
  ScriptedServer server(R"({"responses": [{"status": 507, "body": "full"}]})");
  Client client(server);
  const auto file = directory_.path() + "/file";
  std::ofstream(file) << "contents";
  const auto found = finished([&] {
    return client.session().uploadTask(client.request("PUT", "/file"),
                                       NSURL::fileURLWithPath(file));
  });
  EXPECT_EQ(found.httpStatus, 507);
  EXPECT_EQ(found.bytesSent, 8);
  EXPECT_EQ(found.errorCode, 0);
  EXPECT_EQ(found.body, nullptr);
}

TEST_F(FinishedTest, ARequestWithoutAnAnswerHasNoStatusButAnError) {
  ScriptedServer server(R"({"responses": [{"cut": 0}]})");
  Client client(server);
  const auto found =
      finished([&] { return client.session().dataTask(client.request("MKCOL", "/a"), nullptr); });
  EXPECT_EQ(found.httpStatus, 0);
  EXPECT_EQ(found.errorCode, NSURLErrorNetworkConnectionLost);
}

TEST_F(FinishedTest, AnAnswerThatBreaksOffHasBoth) {
  ::setenv("TMPDIR", directory_.path().c_str(), 1);
  ScriptedServer server(R"({"responses": [{"fill": 100000, "cut": 50000}]})");
  Client client(server);
  const auto found =
      finished([&] { return client.session().downloadTask(client.request("GET", "/a")); });
  ::unsetenv("TMPDIR");
  EXPECT_EQ(found.httpStatus, 200);
  EXPECT_EQ(found.errorCode, NSURLErrorNetworkConnectionLost);
}

}  // namespace
}  // namespace kestrowan::test
