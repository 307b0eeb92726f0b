#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <future>
#include <string>

#include "NetworkTest.h"
#include "platform/network/Arrivals.h"
#include "platform/network/TransferMonitor.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::test {
namespace {

/// Downloads that are read while they arrive.
class ArrivalTest : public testing::Test {
 protected:
  using Body = std::shared_ptr<ArrivingBody>;

  ArrivalTest() { ::setenv("TMPDIR", directory_.path().c_str(), 1); }
  ~ArrivalTest() override { ::unsetenv("TMPDIR"); }

  /// Of the next download, whose body may take `limit` bytes at first.
  std::future<Body> nextBody(std::int64_t limit = ArrivingBody::kNoLimit) {
    auto promise = std::make_shared<std::promise<Body>>();
    auto body = promise->get_future();
    watch_ = Arrivals::shared().watch(
        "GET", [](const std::string& url) { return url.ends_with("/file"); }, nullptr,
        [promise, limit](const Body& arriving) {
          arriving->setLimit(limit);
          promise->set_value(arriving);
        });
    return body;
  }

  static void waitFor(ArrivingBody& body, std::int64_t offset) {
    std::promise<void> reached;
    body.whenReached(offset, [&reached] { reached.set_value(); });
    reached.get_future().get();
  }

  static std::string read(const ArrivingBody& body, std::size_t size) {
    std::string bytes(size, '\0');
    const auto count = ::pread(body.file(), bytes.data(), size, 0);
    bytes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return bytes;
  }

 private:
  TemporaryDirectory directory_;
  std::shared_ptr<void> watch_;
};

std::string filled(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i % 256);
  return text;
}

TEST_F(ArrivalTest, BytesAreReadableBeforeTheEnd) {
  ScriptedServer server(R"({"responses": [{"headers": [["ETag", "\"x1\""]], "fill": 1000000,
                                           "pauseAt": 500000, "pauseFor": "x"}]})");
  Client client(server);
  auto next = nextBody();
  auto download = started(client.session().downloadTask(client.request("GET", "/file")));
  const auto body = next.get();
  EXPECT_EQ(body->head().httpStatus, 200);
  EXPECT_EQ(body->head().length, 1000000);
  EXPECT_EQ(body->head().entityTag, "\"x1\"");
  waitFor(*body, 400000);
  EXPECT_TRUE(read(*body, 400000) == filled(400000));
  EXPECT_LT(body->bytes(), 1000000);
  server.release("x");
  waitFor(*body, 1000000);
  download.get();
  EXPECT_TRUE(read(*body, 1000001) == filled(1000000));
}

TEST_F(ArrivalTest, HeadWithoutLengthOrTagSaysSo) {
  ScriptedServer server(R"({"responses": [{"fill": 1000, "chunked": true}]})");
  Client client(server);
  auto next = nextBody();
  resultOf(client.session().downloadTask(client.request("GET", "/file")));
  const auto body = next.get();
  EXPECT_EQ(body->head().length, std::nullopt);
  EXPECT_EQ(body->head().entityTag, std::nullopt);
  EXPECT_EQ(body->bytes(), 1000);
}

TEST_F(ArrivalTest, TransferStopsAtItsLimitAndGoesOn) {
  constexpr std::int64_t kSize = 30 << 20;
  ScriptedServer server(R"({"responses": [{"fill": 31457280}, {"body": "other"}]})");
  Client client(server);
  auto next = nextBody(100000);
  auto download = started(client.session().downloadTask(client.request("GET", "/file")));
  const auto body = next.get();
  waitFor(*body, 100000);
  // Another request comes and goes meanwhile.
  client.get("/other");
  EXPECT_LT(body->bytes(), 1 << 20);
  body->setLimit(2 << 20);
  waitFor(*body, 2 << 20);
  EXPECT_LT(body->bytes(), kSize);
  body->setLimit(ArrivingBody::kNoLimit);
  download.get();
  EXPECT_EQ(body->bytes(), kSize);
}

TEST_F(ArrivalTest, CancelledTransferEndsAndGivesItsPlaceBack) {
  ScriptedServer server(R"({"responses": [{"fill": 31457280}, {"body": "other"}]})");
  Client client(server);
  auto next = nextBody(100000);
  auto download = started(client.session().downloadTask(client.request("GET", "/file")));
  const auto body = next.get();
  waitFor(*body, 100000);
  body->cancel();
  EXPECT_EQ(errorOf(download), NSURLErrorCancelled);
  EXPECT_EQ(client.get("/other").second, "other");
  body->cancel();
  body->setLimit(ArrivingBody::kNoLimit);
  EXPECT_TRUE(TransferMonitor::shared().transfers().empty());
}

TEST_F(ArrivalTest, CutBodyIsAnErrorOfTheTask) {
  ScriptedServer server(R"({"responses": [{"fill": 1000000, "cut": 500000}]})");
  Client client(server);
  auto next = nextBody();
  auto download = started(client.session().downloadTask(client.request("GET", "/file")));
  const auto body = next.get();
  bool isWhole = false;
  body->whenReached(1000000, [&isWhole] { isWhole = true; });
  EXPECT_EQ(errorOf(download), NSURLErrorNetworkConnectionLost);
  EXPECT_FALSE(isWhole);
  EXPECT_LT(body->bytes(), 500000);
}

TEST_F(ArrivalTest, OtherDownloadsAreNotRead) {
  ScriptedServer server(R"({"responses": [{"body": "one"}]})");
  Client client(server);
  auto next = nextBody();
  resultOf(client.session().downloadTask(client.request("GET", "/another")));
  EXPECT_EQ(next.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
}

}  // namespace
}  // namespace kestrowan::test
