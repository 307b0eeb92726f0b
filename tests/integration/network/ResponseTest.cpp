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

}  // namespace
}  // namespace kestrowan::test
