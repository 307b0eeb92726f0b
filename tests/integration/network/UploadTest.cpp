#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "NetworkTest.h"
#include "platform/network/TransferMonitor.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::test {
namespace {

class UploadTest : public testing::Test {
 protected:
  std::string path(const std::string& name = "file") const {
    return directory_.path() + "/" + name;
  }

  /// A file of `size` bytes that all differ from their neighbours.
  NSURL file(std::size_t size) const {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 7 % 251);
    std::ofstream(path(), std::ios::binary) << text;
    return NSURL::fileURLWithPath(path());
  }

  /// A file of so many zeros, which take no room.
  NSURL sparseFile(off_t size) const {
    std::ofstream(path()).flush();
    EXPECT_EQ(::truncate(path().c_str(), size), 0);
    return NSURL::fileURLWithPath(path());
  }

  std::string sha256() const {
    auto* pipe = ::popen(("sha256sum " + path()).c_str(), "r");
    char digits[65] = {};
    EXPECT_EQ(std::fread(digits, 1, 64, pipe), 64u);
    ::pclose(pipe);
    return digits;
  }

  static void waitUntilBytesAreSent() {
    while (true) {
      const auto transfers = TransferMonitor::shared().transfers();
      if (!transfers.empty() && transfers.front().bytesSent > 0) return;
      std::this_thread::yield();
    }
  }

 private:
  TemporaryDirectory directory_;
};

constexpr off_t kMoreThanSocketsHold = 64 * 1024 * 1024;

TEST_F(UploadTest, WholeFileIsSent) {
  ScriptedServer server(R"({"responses": [{"status": 201, "body": "ignored"}]})");
  Client client(server);
  const auto response =
      resultOf(client.session().uploadTask(client.request("PUT", "/big"), file(5000001)));
  EXPECT_EQ(Client::statusOf(response), 201);
  const auto requests = server.waitForRequests(1);
  EXPECT_EQ(requests.at(0).bodyLength, 5000001);
  EXPECT_EQ(requests.at(0).bodySHA256, sha256());
}

TEST_F(UploadTest, UnsuitableFilesAreErrorsWithoutARequest) {
  ScriptedServer server;
  Client client(server);
  const auto error = [&](const std::string& of) {
    return errorOf(
        client.session().uploadTask(client.request("PUT", "/"), NSURL::fileURLWithPath(of)));
  };
  EXPECT_EQ(error(path("none")), NSURLErrorFileDoesNotExist);
  EXPECT_EQ(error(path("none/none")), NSURLErrorFileDoesNotExist);
  EXPECT_EQ(error(path("")), NSURLErrorFileIsDirectory);
  ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
  EXPECT_EQ(error(path("fifo")), NSURLErrorFileDoesNotExist);
  EXPECT_EQ(error("/dev/null"), NSURLErrorFileDoesNotExist);
  EXPECT_EQ(errorOf(client.session().uploadTask(client.request("PUT", "/"), server.url("/"))),
            NSURLErrorBadURL);
  EXPECT_EQ(server.eventCount("connected"), 0u);
}

TEST_F(UploadTest, UnreadableFileIsAnError) {
  ScriptedServer server;
  Client client(server);
  const auto secret = file(10);
  ASSERT_EQ(::chmod(path().c_str(), 0), 0);
  constexpr uid_t kNobody = 65534;
  const bool wasRoot = ::geteuid() == 0;
  if (wasRoot) {
    ASSERT_EQ(::seteuid(kNobody), 0);
  }
  const auto error = errorOf(client.session().uploadTask(client.request("PUT", "/"), secret));
  if (wasRoot) {
    ASSERT_EQ(::seteuid(0), 0);
  }
  EXPECT_EQ(error, NSURLErrorNoPermissionsToReadFile);
}

TEST_F(UploadTest, FileThatShrinksIsAnError) {
  ScriptedServer server(R"({"responses": [{"holdBodyFor": "go"}]})");
  Client client(server);
  auto upload = started(
      client.session().uploadTask(client.request("PUT", "/"), sparseFile(kMoreThanSocketsHold)));
  waitUntilBytesAreSent();
  ASSERT_EQ(::truncate(path().c_str(), 100), 0);
  server.release("go");
  try {
    upload.get();
    FAIL() << "no error";
  } catch (const NSError& error) {
    EXPECT_TRUE(error.is(NSURLErrorDomain, NSURLErrorRequestBodyStreamExhausted));
  }
  EXPECT_FALSE(server.waitForRequests(1).at(0).complete);
}

TEST_F(UploadTest, GrowthIsNotSent) {
  ScriptedServer server(R"({"responses": [{"holdBodyFor": "go", "status": 201}]})");
  Client client(server);
  auto upload = started(
      client.session().uploadTask(client.request("PUT", "/"), sparseFile(kMoreThanSocketsHold)));
  waitUntilBytesAreSent();
  ASSERT_EQ(::truncate(path().c_str(), kMoreThanSocketsHold + 1000), 0);
  server.release("go");
  EXPECT_EQ(Client::statusOf(upload.get()), 201);
  EXPECT_EQ(server.waitForRequests(1).at(0).bodyLength, kMoreThanSocketsHold);
  EXPECT_EQ(Client::statusOf(resultOf(client.session().dataTask(client.request("GET", "/"), {}))),
            201);
}

TEST_F(UploadTest, AnswerBeforeTheEndOfTheBodyIsDelivered) {
  const auto big = sparseFile(kMoreThanSocketsHold);
  for (const auto* answer :
       {R"({"status": 413, "readBody": false, "then": "drain"})",
        R"({"status": 401, "readBody": false, "body": "text", "then": "drain"})",
        R"({"status": 507, "readBytes": 1000000, "then": "drain"})"}) {
    ScriptedServer server(std::string("{\"responses\": [") + answer + "]}");
    Client client(server);
    for (int i = 0; i < 5; ++i) {
      const auto response = resultOf(client.session().uploadTask(client.request("PUT", "/"), big));
      EXPECT_GE(Client::statusOf(response), 401);
    }
    EXPECT_FALSE(server.requests().at(0).complete);
  }
}

TEST_F(UploadTest, SuccessOfAFileThatWasNotSentWholeDoesNotCount) {
  const auto big = sparseFile(kMoreThanSocketsHold);
  for (const auto* ending : {"close", "drop", "rst"}) {
    ScriptedServer server(
        std::string(R"({"responses": [{"status": 201, "readBytes": 1000000, "then": ")") + ending +
        "\"}]}");
    Client client(server);
    EXPECT_EQ(errorOf(client.session().uploadTask(client.request("PUT", "/"), big)),
              NSURLErrorNetworkConnectionLost);
    EXPECT_FALSE(server.waitForRequests(1).at(0).complete);
  }
}

TEST_F(UploadTest, ConnectionLostWhileSendingIsAnError) {
  const auto big = sparseFile(kMoreThanSocketsHold);
  for (const auto* ending : {"close", "drop", "rst"}) {
    ScriptedServer server(
        std::string(R"({"responses": [{"readBytes": 1000000, "cut": 0, "then": ")") + ending +
        "\"}]}");
    Client client(server);
    EXPECT_EQ(errorOf(client.session().uploadTask(client.request("PUT", "/"), big)),
              NSURLErrorNetworkConnectionLost);
    EXPECT_EQ(server.requests().size(), 1u);
  }
}

}  // namespace
}  // namespace kestrowan::test
