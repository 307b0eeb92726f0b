#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include "NetworkTest.h"
#include "platform/base/UniqueFd.h"

namespace kestrowan::test {
namespace {

/// The error of a GET that is answered so; 0 for success.
std::int64_t errorFor(const std::string& answer) {
  ScriptedServer server("{\"responses\": [" + answer + "]}");
  Client client(server);
  const auto receiver = std::make_shared<TestReceiver>();
  const auto data = errorOf(client.session().dataTask(client.request("GET", "/"), receiver));
  // A download sees the same connection in the same way.
  EXPECT_EQ(errorOf(client.session().downloadTask(client.request("GET", "/"))), data);
  return data;
}

TEST(ResponseTest, EveryStatusIsAnAnswer) {
  for (const int status : {200, 201, 204, 207, 300, 302, 304, 400, 401, 403, 404,
                           405, 409, 412, 423, 500, 503, 507, 599, 600, 999}) {
    ScriptedServer server("{\"responses\": [{\"status\": " + std::to_string(status) + "}]}");
    Client client(server);
    EXPECT_EQ(client.get("/").first, status);
  }
}

TEST(ResponseTest, InterimAnswersAreNotSeen) {
  ScriptedServer server(R"({"responses": [
      {"interim": [100, 102, 103], "status": 207, "body": "x"}]})");
  Client client(server);
  EXPECT_EQ(client.get("/"), std::pair(std::int64_t{207}, std::string("x")));
}

TEST(ResponseTest, BodiesOfAllFormsArrive) {
  const std::string expected = "beforeaaaaaaaaaaafter";
  for (const auto* form :
       {"", R"(, "chunked": true)", R"(, "chunked": true, "chunkBytes": 1)",
        R"(, "length": null, "then": "close")", R"(, "version": "HTTP/1.0", "then": "close")"}) {
    ScriptedServer server(
        std::string(R"({"responses": [{"repeat": {"before": "before", "each": "a", "count": 10,)") +
        R"("after": "after"})" + form + "}]}");
    Client client(server);
    EXPECT_EQ(client.get("/").second, expected) << form;
    EXPECT_EQ(client.get("/").second, expected) << form;
  }
}

TEST(ResponseTest, ContentCodingIsLeftAlone) {
  ScriptedServer server(R"({"responses": [
      {"headers": [["Content-Encoding", "gzip"]], "body": "not gzip at all"}]})");
  Client client(server);
  EXPECT_EQ(client.get("/").second, "not gzip at all");
}

TEST(ResponseTest, HeadHasNoBody) {
  ScriptedServer server(R"({"responses": [{"body": "0123456789"}]})");
  Client client(server);
  const auto receiver = std::make_shared<TestReceiver>();
  const auto response = resultOf(client.session().dataTask(client.request("HEAD", "/"), receiver));
  EXPECT_EQ(Client::statusOf(response), 200);
  EXPECT_EQ(receiver->body(), "");
}

TEST(ResponseTest, BodyBehindTheAnnouncedLengthIsNotSeen) {
  ScriptedServer server(R"({"responses": [{"body": "0123456789", "length": 4}]})");
  Client client(server);
  EXPECT_EQ(client.get("/").second, "0123");
  EXPECT_EQ(client.get("/").second, "0123");
}

TEST(ResponseTest, NothingListens) {
  const UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  // A bound socket that does not listen keeps the port from everybody else.
  ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
  const auto session = NSURLSession::session({}, {});
  const NSURLRequest request{
      NSURL::URLWithString("https://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/")};
  try {
    resultOf(session->dataTask(request, nullptr));
    FAIL() << "no error";
  } catch (const NSError& error) {
    EXPECT_TRUE(error.is(NSURLErrorDomain, NSURLErrorCannotConnectToHost));
    EXPECT_EQ(error.localizedDescription(), "Could not connect to the server.");
    EXPECT_NE(error.userInfo().at("NSUnderlyingError").find("onnect"), std::string::npos);
  }
}

TEST(ResponseTest, ConnectionClosedWithoutAByteIsLost) {
  EXPECT_EQ(errorFor(R"({"cut": 0, "then": "close"})"), NSURLErrorNetworkConnectionLost);
  EXPECT_EQ(errorFor(R"({"cut": 0, "then": "drop"})"), NSURLErrorNetworkConnectionLost);
  EXPECT_EQ(errorFor(R"({"cut": 0, "then": "rst"})"), NSURLErrorNetworkConnectionLost);
}

TEST(ResponseTest, TruncatedAnswerIsALostConnection) {
  for (const auto* ending : {"close", "drop", "rst"}) {
    const std::string then = std::string(R"(, "then": ")") + ending + "\"}";
    EXPECT_EQ(errorFor(R"({"cut": 9)" + then), NSURLErrorNetworkConnectionLost);
    EXPECT_EQ(errorFor(R"({"cut": 30)" + then), NSURLErrorNetworkConnectionLost);
    EXPECT_EQ(errorFor(R"({"body": "0123456789", "length": 11)" + then),
              NSURLErrorNetworkConnectionLost);
    EXPECT_EQ(errorFor(R"({"fill": 1000000, "cut": 500000)" + then),
              NSURLErrorNetworkConnectionLost);
    EXPECT_EQ(errorFor(R"({"fill": 1000000, "chunked": true, "cut": 500000)" + then),
              NSURLErrorNetworkConnectionLost);
  }
}

TEST(ResponseTest, BodyWithoutLengthNeedsTheClosingAlert) {
  EXPECT_EQ(errorFor(R"({"body": "x", "length": null, "then": "close"})"), 0);
  EXPECT_EQ(errorFor(R"({"body": "x", "length": null, "then": "drop"})"),
            NSURLErrorNetworkConnectionLost);
}

TEST(ResponseTest, WhatIsNoHTTPCannotBeParsed) {
  for (const auto* raw :
       {"garbage", "\\r\\n\\r\\n", "SSH-2.0-x\\r\\n", "HTTP/9.9 200 OK\\r\\n\\r\\n",
        "HTTP/1.1 abc\\r\\n\\r\\n", "HTTP/1.1 20\\r\\n\\r\\n", "220 ftp\\r\\n"}) {
    EXPECT_EQ(errorFor(std::string(R"({"then": "close", "raw": ")") + raw + "\"}"),
              NSURLErrorCannotParseResponse)
        << raw;
  }
}

TEST(ResponseTest, EndlessHeadersCannotBeParsed) {
  const std::string line(1000, 'a');
  const std::string longLine(200000, 'a');
  std::string many;
  for (int i = 0; i < 1000; ++i) many += "X" + std::to_string(i) + ": " + line + "\\r\\n";
  EXPECT_EQ(
      errorFor(R"({"then": "close", "raw": "HTTP/1.1 200 OK\r\nX: )" + longLine + R"(\r\n\r\n"})"),
      NSURLErrorCannotParseResponse);
  EXPECT_EQ(errorFor(R"({"then": "close", "raw": "HTTP/1.1 200 OK\r\n)" + many + R"(\r\n"})"),
            NSURLErrorCannotParseResponse);
}

TEST(ResponseTest, ImpossibleLengthsCannotBeParsed) {
  for (const auto* length : {"99999999999999999999999", "-1", "abc"}) {
    const auto error =
        errorFor(std::string(R"({"then": "close", "raw": "HTTP/1.1 200 OK\r\nContent-Length: )") +
                 length + R"(\r\n\r\nxx"})");
    EXPECT_TRUE(error == NSURLErrorCannotParseResponse || error == NSURLErrorNetworkConnectionLost)
        << length << " gave " << error;
  }
}

/// An answer of 10 bytes whose head says so of its form, and then the orderly end of TLS.
std::string answerOf(const std::string& version, const std::string& lines) {
  return R"({"then": "close", "raw": "HTTP/)" + version + R"( 200 OK\r\n)" + lines +
         R"(\r\n0123456789"})";
}

constexpr std::string_view kChunks = R"(5\r\n01234\r\n5\r\n56789\r\n0\r\n\r\n)";

std::string chunkedAnswerOf(const std::string& version, const std::string& lines) {
  return R"({"then": "close", "raw": "HTTP/)" + version + R"( 200 OK\r\n)" + lines + R"(\r\n)" +
         std::string(kChunks) + "\"}";
}

TEST(ResponseTest, TransferCodingOtherThanChunkedAloneCannotBeParsed) {
  for (const auto* coding : {"identity", "gzip", "x-gzip", "deflate", "br", "zstd", "compress",
                             "unknown", "", ",", "chunk", "chunked2", "\\t"}) {
    const auto line = std::string("Transfer-Encoding: ") + coding + R"(\r\n)";
    EXPECT_EQ(errorFor(answerOf("1.1", line)), NSURLErrorCannotParseResponse) << coding;
    EXPECT_EQ(errorFor(answerOf("1.1", line + R"(Content-Length: 1000\r\n)")),
              NSURLErrorCannotParseResponse)
        << coding;
    EXPECT_EQ(errorFor(answerOf("1.1", line + R"(Content-Length: 10\r\n)")),
              NSURLErrorCannotParseResponse)
        << coding;
  }
  for (const auto* lines :
       {R"(Transfer-Encoding: gzip, chunked\r\n)", R"(Transfer-Encoding: chunked, gzip\r\n)",
        R"(Transfer-Encoding: chunked, chunked\r\n)", R"(Transfer-Encoding: chunked;x=1\r\n)",
        R"(Transfer-Encoding: identity, chunked\r\n)", R"(Transfer-Encoding: chunked,\r\n)",
        R"(Transfer-Encoding: \"chunked\"\r\n)", R"(Transfer-Encoding: chunked x\r\n)",
        R"(Transfer-Encoding:\r\n chunked\r\n)",
        R"(Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n)",
        R"(Transfer-Encoding: chunked\r\nX: y\r\ntransfer-encoding: identity\r\n)",
        R"(Transfer-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n)"}) {
    EXPECT_EQ(errorFor(chunkedAnswerOf("1.1", lines)), NSURLErrorCannotParseResponse) << lines;
  }
}

TEST(ResponseTest, VersionWithoutTransferCodingsHasNone) {
  EXPECT_EQ(errorFor(chunkedAnswerOf("1.0", R"(Transfer-Encoding: chunked\r\n)")),
            NSURLErrorCannotParseResponse);
  EXPECT_EQ(errorFor(answerOf("1.0", R"(Transfer-Encoding: identity\r\n)")),
            NSURLErrorCannotParseResponse);
}

TEST(ResponseTest, ChunkedIsKnownInAnySpelling) {
  for (const auto* lines : {R"(Transfer-Encoding: chunked\r\n)", R"(TRANSFER-ENCODING:CHUNKED\r\n)",
                            R"(transfer-encoding: \t Chunked \t \r\n)",
                            // The coding decides, whatever the length says.
                            R"(Content-Length: 3\r\nTransfer-Encoding: chunked\r\n)",
                            R"(Transfer-Encoding: chunked\r\nContent-Length: 1000\r\n)"}) {
    ScriptedServer server("{\"responses\": [" + chunkedAnswerOf("1.1", lines) + "]}");
    Client client(server);
    EXPECT_EQ(client.get("/").second, "0123456789") << lines;
  }
}

TEST(ResponseTest, CodingOfAnAnswerWithoutBodyDoesNotMatter) {
  for (const auto* status : {"204 No Content", "304 Not Modified"}) {
    ScriptedServer server(std::string(R"({"responses": [{"then": "close", "raw": "HTTP/1.1 )") +
                          status + R"(\r\nTransfer-Encoding: gzip\r\n\r\n"}]})");
    Client client(server);
    EXPECT_EQ(client.get("/").first, std::atoi(status));
  }
}

TEST(ResponseTest, InterimAnswerSaysNothingOfTheFinalOnesForm) {
  ScriptedServer server(R"({"responses": [{"then": "drop", "raw": "HTTP/1.1 103 Early\r\n)"
                        R"(Transfer-Encoding: chunked\r\n\r\nHTTP/1.1 200 OK\r\n\r\n0123"}]})");
  Client client(server);
  EXPECT_EQ(errorOf(client.session().dataTask(client.request("GET", "/"),
                                              std::make_shared<TestReceiver>())),
            NSURLErrorNetworkConnectionLost);
}

TEST(ResponseTest, LinesBehindAChunkedBodySayNothingOfIt) {
  ScriptedServer server(
      R"({"responses": [{"raw": "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n)"
      R"(4\r\n0123\r\n0\r\nContent-Length: x\r\nTransfer-Encoding: gzip\r\n\r\n"}]})");
  Client client(server);
  EXPECT_EQ(client.get("/").second, "0123");
}

/// How answers break behind their head: before their end as announced, or without one. (A reset may
/// take back the head.)
constexpr const char* kBroken[] = {
    R"("body": "x", "length": null, "then": "drop")",
    R"("body": "0123456789", "length": 1000, "then": "drop")",
    R"("body": "0123456789", "length": 1000, "then": "close")",
    R"("fill": 1000, "chunked": true, "cut": 120, "then": "drop")",
    R"("fill": 1000, "chunked": true, "cut": 120, "then": "close")",
    R"("body": "0123456789", "headers": [["Transfer-Encoding", "gzip"]])",
    R"("body": "0123456789", "headers": [["Transfer-Encoding", "unknown"]], "length": null)",
    R"("body": "0123456789", "version": "HTTP/1.0", "length": null, "then": "drop")",
};

/// The status of the answer that `task` ends with, or its error's code.
std::int64_t statusOrError(Task<std::shared_ptr<const NSURLResponse>> task) {
  try {
    return Client::statusOf(resultOf(std::move(task)));
  } catch (const NSError& error) {
    return error.code();
  }
}

TEST(ResponseTest, StatusCountsWhereTheBodyIsIgnoredHoweverTheConnectionEnds) {
  const auto file = NSURL::fileURLWithPath("/etc/hostname");
  for (const auto* broken : kBroken) {
    for (const int status : {201, 207, 401, 404, 412, 500}) {
      ScriptedServer server("{\"responses\": [{\"status\": " + std::to_string(status) + ", " +
                            broken + "}]}");
      Client client(server);
      for (const auto* method : {"MKCOL", "MOVE", "DELETE"}) {
        EXPECT_EQ(statusOrError(client.session().dataTask(client.request(method, "/"), nullptr)),
                  status)
            << method << " " << broken;
      }
      EXPECT_EQ(statusOrError(client.session().uploadTask(client.request("PUT", "/"), file)),
                status)
          << "PUT " << broken;
    }
  }
}

TEST(ResponseTest, IgnoredBodyIsNotWaitedForWithoutEnd) {
  ScriptedServer server(R"({"responses": [
      {"status": 201, "body": "x", "length": 1000, "pauseAt": 60, "pauseFor": "never"},
      {"status": 207, "fill": 100000000000}]})");
  Client client(server);
  auto first = client.request("MKCOL", "/");
  first.timeoutInterval = 1;
  EXPECT_EQ(Client::statusOf(resultOf(client.session().dataTask(first, nullptr))), 201);
  EXPECT_EQ(
      Client::statusOf(resultOf(client.session().dataTask(client.request("DELETE", "/"), nullptr))),
      207);
}

TEST(ResponseTest, HeadThatBreaksOffCountsNowhere) {
  for (const auto* ending : {"close", "drop", "rst"}) {
    ScriptedServer server(std::string(R"({"responses": [{"status": 201, "cut": 20, "then": ")") +
                          ending + "\"}]}");
    Client client(server);
    EXPECT_EQ(errorOf(client.session().dataTask(client.request("MKCOL", "/"), nullptr)),
              NSURLErrorNetworkConnectionLost);
  }
}

TEST(ResponseTest, BrokenBodyThatIsUsedIsAnErrorWhateverTheStatus) {
  for (const auto* broken : {kBroken[0], kBroken[2], kBroken[4]}) {
    for (const int status : {200, 207, 404}) {
      EXPECT_EQ(errorFor("{\"status\": " + std::to_string(status) + ", " + broken + "}"),
                NSURLErrorNetworkConnectionLost)
          << broken;
    }
  }
}

/// Counts a body and keeps nothing of it.
class CountingReceiver : public NSURLSessionDataReceiver {
 public:
  void didReceiveData(std::string_view data) override { size_ += data.size(); }
  std::size_t size() const { return size_; }

 private:
  std::size_t size_ = 0;
};

TEST(ResponseTest, BodyThatIsUsedAsItComesHasNoLongestLength) {
  constexpr std::size_t kSize = 300'000'000;
  ScriptedServer server("{\"responses\": [{\"fill\": " + std::to_string(kSize) + "}]}");
  Client client(server);
  const auto receiver = std::make_shared<CountingReceiver>();
  resultOf(client.session().dataTask(client.request("GET", "/"), receiver));
  EXPECT_EQ(receiver->size(), kSize);
}

}  // namespace
}  // namespace kestrowan::test
