#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "NetworkTest.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::test {
namespace {

std::string head(const ScriptedServer& server, const std::string& requestLine,
                 const std::string& rest) {
  return requestLine + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.port()) +
         "\r\nAccept: */*\r\nAuthorization: Basic dTpw\r\n" + rest + "\r\n";
}

HTTPHeaders authorization() {
  return {{"Authorization", "Basic dTpw"}};
}

TEST(RequestTest, DataRequestIsWrittenExactly) {
  ScriptedServer server;
  Client client(server, authorization());
  resultOf(client.session().dataTask(
      client.request("PROPFIND", "/Home/a%20b/",
                     {{"Depth", "1"}, {"Content-Type", "application/xml"}}),
      nullptr));
  EXPECT_EQ(server.waitForRequests(1).at(0).raw,
            head(server, "PROPFIND /Home/a%20b/", "Depth: 1\r\nContent-Type: application/xml\r\n"));
}

TEST(RequestTest, DownloadRequestIsWrittenExactly) {
  ScriptedServer server;
  Client client(server, authorization());
  const auto download = resultOf(client.session().downloadTask(client.request("GET", "/a.txt")));
  std::remove(download.location.path().c_str());
  EXPECT_EQ(server.waitForRequests(1).at(0).raw, head(server, "GET /a.txt", ""));
}

TEST(RequestTest, UploadRequestIsWrittenExactly) {
  ScriptedServer server(R"({"responses": [{"status": 201}]})");
  Client client(server, authorization());
  const TemporaryDirectory directory;
  const std::string path = directory.path() + "/file";
  std::ofstream(path) << "contents";
  resultOf(
      client.session().uploadTask(client.request("PUT", "/a.txt"), NSURL::fileURLWithPath(path)));
  EXPECT_EQ(server.waitForRequests(1).at(0).raw,
            head(server, "PUT /a.txt", "Content-Length: 8\r\n") + "contents");
}

TEST(RequestTest, EmptyFileIsUploadedWithItsLength) {
  ScriptedServer server;
  Client client(server, authorization());
  const TemporaryDirectory directory;
  const std::string path = directory.path() + "/file";
  std::ofstream(path).flush();
  resultOf(client.session().uploadTask(client.request("PUT", "/a"), NSURL::fileURLWithPath(path)));
  EXPECT_EQ(server.waitForRequests(1).at(0).raw, head(server, "PUT /a", "Content-Length: 0\r\n"));
}

TEST(RequestTest, MethodsWithoutABodyAnnounceNone) {
  ScriptedServer server;
  Client client(server, authorization());
  for (const auto* method : {"MKCOL", "DELETE", "MOVE", "HEAD", "OPTIONS"}) {
    resultOf(client.session().dataTask(client.request(method, "/x"), nullptr));
    EXPECT_EQ(server.requests().back().raw, head(server, std::string(method) + " /x", ""));
  }
}

TEST(RequestTest, PathIsSentAsItStands) {
  ScriptedServer server;
  Client client(server);
  for (const auto* path :
       {"/", "//a//b", "/a/../b/./c", "/%2e%2e/%2F", "/a;b=c,d:e@f!$&'()*+~_-", "/a%00%0A%25"}) {
    client.get(path);
    EXPECT_EQ(server.requests().back().target, path);
  }
  client.get("");
  EXPECT_EQ(server.requests().back().target, "/");
}

TEST(RequestTest, EmptyHeaderValueIsSent) {
  ScriptedServer server;
  Client client(server, authorization());
  resultOf(client.session().dataTask(client.request("GET", "/", {{"X-Empty", ""}}), nullptr));
  EXPECT_EQ(server.requests().at(0).raw, head(server, "GET /", "X-Empty:\r\n"));
}

TEST(RequestTest, HeaderThatWouldSplitTheRequestIsRefused) {
  ScriptedServer server;
  Client client(server);
  const std::string zero("a\0b", 3);
  const HTTPHeaders headers = {{"X", "a\r\nY: b"}, {"X", "a\nb"}, {"X", "a\r"}, {"X", zero},
                               {"X\r\nY", "a"},    {"X Y", "a"},  {"", "a"},    {"X:", "a"}};
  for (const auto& header : headers) {
    EXPECT_EQ(errorOf(client.session().dataTask(client.request("GET", "/", {header}), nullptr)),
              NSURLErrorBadURL);
    Client withHeader(server, {header});
    EXPECT_EQ(errorOf(withHeader.session().downloadTask(client.request("GET", "/"))),
              NSURLErrorBadURL);
  }
  for (const auto* method : {"", "GET /x", "GET\r\n", "G\tT"}) {
    EXPECT_EQ(errorOf(client.session().dataTask(client.request(method, "/"), nullptr)),
              NSURLErrorBadURL);
  }
  EXPECT_EQ(server.eventCount("connected"), 0u);
}

TEST(RequestTest, ImpossibleURLIsABadURL) {
  const auto session = NSURLSession::session({}, {});
  for (const auto* url : {"https://127.0.0.1:0/",
                          "https://127.0.0.1:-5/",
                          "https://127.0.0.1:65536/",
                          "https://127.0.0.1:70000/",
                          "https://127.0.0.1:9223372036854775807/",
                          "https://127.0.0.1:+80/",
                          "https://127.0.0.1:/",
                          "https://127.0.0.1: 80/",
                          "https://127.0.0.1:80a/",
                          "http://127.0.0.1:80/",
                          "ftp://127.0.0.1/",
                          "https://",
                          "https:///x",
                          "https://:80/",
                          "",
                          "/x",
                          "127.0.0.1",
                          "https://u@127.0.0.1:80/",
                          "https://u:p@127.0.0.1/",
                          "https://127.0.0.1:80/a b",
                          "https://127.0.0.1:80/a\r\nX: y",
                          "https://127.0.0.1:80/\xC3\xA9",
                          "https://[::1/",
                          "https://[::1]x/",
                          "https://[]:80/"}) {
    const NSURLRequest request{NSURL::URLWithString(url)};
    EXPECT_EQ(errorOf(session->dataTask(request, nullptr)), NSURLErrorBadURL) << url;
    EXPECT_EQ(errorOf(session->downloadTask(request)), NSURLErrorBadURL) << url;
    EXPECT_EQ(errorOf(session->uploadTask(request, NSURL::fileURLWithPath("/etc/hostname"))),
              NSURLErrorBadURL)
        << url;
  }
  EXPECT_EQ(errorOf(session->dataTask({NSURL::fileURLWithPath("/etc/hostname")}, nullptr)),
            NSURLErrorBadURL);
}

/// Sets an environment variable while it lives.
class Environment {
 public:
  Environment(const char* name, const std::string& value) : name_(name) {
    ::setenv(name, value.c_str(), 1);
  }
  ~Environment() { ::unsetenv(name_); }

 private:
  const char* name_;
};

TEST(RequestTest, EnvironmentAndHomeDirectoryAreIgnored) {
  const TemporaryDirectory home;
  std::ofstream(home.path() + "/.netrc") << "machine 127.0.0.1 login other password other\n";
  std::ofstream(home.path() + "/.curlrc") << "header = \"X-Curl: 1\"\n";
  const std::string dead = "http://127.0.0.1:9";
  const Environment homeVariable("HOME", home.path());
  const Environment netrc("NETRC", home.path() + "/.netrc");
  const Environment https("https_proxy", dead);
  const Environment upperHTTPS("HTTPS_PROXY", dead);
  const Environment all("all_proxy", dead);
  const Environment upperAll("ALL_PROXY", dead);
  const Environment bundle("CURL_CA_BUNDLE", home.path() + "/none");
  const Environment certFile("SSL_CERT_FILE", home.path() + "/none");
  const Environment certDirectory("SSL_CERT_DIR", home.path() + "/none");
  ScriptedServer server;
  Client client(server);
  EXPECT_EQ(client.get("/").first, 200);
  EXPECT_EQ(server.requests().at(0).raw,
            "GET / HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.port()) +
                "\r\nAccept: */*\r\n\r\n");
}

TEST(RequestTest, CookiesAreNotSentBack) {
  ScriptedServer server(R"({"responses": [{"headers": [["Set-Cookie", "a=b; Path=/"]]}]})");
  Client client(server, authorization());
  client.get("/");
  client.get("/");
  EXPECT_EQ(server.requests().at(1).raw, head(server, "GET /", ""));
}

TEST(RequestTest, RedirectIsAnAnswer) {
  ScriptedServer server(R"({"responses": [
      {"status": 302, "headers": [["Location", "/b"]], "body": "moved"}]})");
  Client client(server);
  EXPECT_EQ(client.get("/a"), std::pair(std::int64_t{302}, std::string("moved")));
  EXPECT_EQ(server.requests().size(), 1u);
}

TEST(RequestTest, ChallengeForAPasswordIsAnAnswer) {
  ScriptedServer server(R"({"responses": [
      {"status": 401, "headers": [["WWW-Authenticate", "Basic realm=\"r\""]]}]})");
  Client client(server, authorization());
  EXPECT_EQ(client.get("/").first, 401);
  EXPECT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(client.delegate().methods().size(), 1u);
}

TEST(RequestTest, RequestIsNotSentAgainWhenAKeptConnectionIsClosedUnanswered) {
  for (const auto* ending : {"close", "drop", "rst"}) {
    ScriptedServer server(std::string(R"({"responses": [{}, {"cut": 0, "then": ")") + ending +
                          "\"}, {}]}");
    Client client(server);
    EXPECT_EQ(client.get("/1").first, 200);
    EXPECT_EQ(errorOf(client.session().dataTask(client.request("MOVE", "/2"), nullptr)),
              NSURLErrorNetworkConnectionLost);
    EXPECT_EQ(client.get("/3").first, 200);
    const auto requests = server.waitForRequests(3);
    ASSERT_EQ(requests.size(), 3u) << ending;
    EXPECT_EQ(requests[1].connection, requests[0].connection);
    EXPECT_EQ(requests[1].target, "/2");
    EXPECT_EQ(requests[2].target, "/3");
    EXPECT_EQ(server.eventCount("connected"), 2u);
  }
}

TEST(RequestTest, ConnectionThatTheServerClosedWhileIdleIsReplaced) {
  for (const auto* ending : {"close", "drop", "rst"}) {
    ScriptedServer server(std::string(R"({"responses": [{"body": "x", "then": ")") + ending +
                          "\"}]}");
    Client client(server);
    for (std::size_t count = 1; count <= 5; ++count) {
      EXPECT_EQ(client.get("/").second, "x") << ending << count;
      server.waitForEvents("disconnected", count);
    }
    EXPECT_EQ(server.requests().size(), 5u);
  }
}

}  // namespace
}  // namespace kestrowan::test
