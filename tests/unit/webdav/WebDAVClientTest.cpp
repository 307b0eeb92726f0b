#include "webdav/WebDAVClient.h"

#include <gtest/gtest.h>

#include <thread>

#include "platform/fileprovider/NSFileProviderError.h"
#include "support/Cases.h"
#include "support/FakeSession.h"
#include "support/TaskResult.h"

namespace kestrowan {
namespace {

static_assert(!std::is_default_constructible_v<WebDAVClient>);

std::shared_ptr<WebDAVClient> client(std::int64_t port = 8443) {
  return WebDAVClient::make(FPBridge::Config{port, "u", "p", ""}, std::nullopt);
}

std::string urlText(std::string_view path) {
  return client()->url(path).absoluteString();
}

TEST(WebDAVClientURL, AnswersEveryKnownCase) {
  // Newer systems leave ";" as it is; the encoded form means the same.
  test::checkCases("url-path", "url_for_path", [](const test::Case& one) -> JSONValue {
    const auto port = *one.input.member("port")->integer();
    return client(port)->url(*one.input.member("path")->string()).absoluteString();
  });
}

TEST(WebDAVClientURL, TheEmptyPathAndTheRootGiveTheServersRoot) {
  EXPECT_EQ(urlText(""), "https://127.0.0.1:8443/");
  EXPECT_EQ(urlText("/"), "https://127.0.0.1:8443/");
}

TEST(WebDAVClientURL, BlanksAndHashesAreEncodedNotCut) {
  EXPECT_EQ(urlText("/a b#c?d"), "https://127.0.0.1:8443/a%20b%23c%3Fd");
}

TEST(WebDAVClientURL, EscapesAreEncodedAgain) {
  EXPECT_EQ(urlText("/a%20b"), "https://127.0.0.1:8443/a%2520b");
}

TEST(WebDAVClientURL, ARelativePathGivesTheServersRoot) {
  EXPECT_EQ(urlText("a/b"), "https://127.0.0.1:8443/");
  EXPECT_EQ(urlText("https://127.0.0.1:8443/a"), "https://127.0.0.1:8443/");
}

TEST(WebDAVClientNormalize, AnswersEveryKnownCase) {
  test::checkCases("item-paths", "normalize", [](const test::Case& one) {
    return JSONValue(WebDAVClient::normalize(one.bytes));
  });
}

TEST(WebDAVClientNormalize, StripsTrailingSlashesAndNothingElse) {
  EXPECT_EQ(WebDAVClient::normalize(""), "/");
  EXPECT_EQ(WebDAVClient::normalize("/"), "/");
  EXPECT_EQ(WebDAVClient::normalize("////"), "/");
  EXPECT_EQ(WebDAVClient::normalize("/a//"), "/a");
  EXPECT_EQ(WebDAVClient::normalize("a/"), "a");
  EXPECT_EQ(WebDAVClient::normalize("/a//b/./../C"), "/a//b/./../C");
}

std::optional<std::int64_t> checkCode(std::int64_t status) {
  try {
    WebDAVClient::check(NSHTTPURLResponse(status));
    return std::nullopt;
  } catch (const NSError& error) {
    EXPECT_EQ(error.domain(), NSFileProviderErrorDomain);
    EXPECT_TRUE(error.userInfo().empty());
    return error.code();
  }
}

TEST(WebDAVClientCheck, PassesEveryStatusOfSuccess) {
  for (const std::int64_t status : {200, 201, 204, 206, 207, 226, 299}) {
    EXPECT_EQ(checkCode(status), std::nullopt) << status;
  }
}

TEST(WebDAVClientCheck, Only401IsNotAuthenticated) {
  EXPECT_EQ(checkCode(401), -1000);
}

TEST(WebDAVClientCheck, EveryOtherStatusIsServerUnreachable) {
  for (const std::int64_t status :
       {0, 100, 199, 300, 301, 302, 304, 400, 403, 404, 405, 407, 409, 412, 423, 500, 507, 600}) {
    EXPECT_EQ(checkCode(status), -1004) << status;
  }
}

TEST(WebDAVClientCheck, AResponseThatIsNotOfHTTPPasses) {
  EXPECT_NO_THROW(WebDAVClient::check(NSURLResponse()));
}

TEST(WebDAVClientSession, IsMadeByTheFirstReadAndKept) {
  test::FakeNetwork network;
  const auto made = client();
  EXPECT_TRUE(network.configurations().empty());
  const auto first = made->session();
  EXPECT_EQ(made->session(), first);
  ASSERT_EQ(network.configurations().size(), 1u);
  EXPECT_EQ(network.configurations()[0].timeoutIntervalForRequest, 60.0);
}

TEST(WebDAVClientSession, IsMadeOnceUnderConcurrentFirstReads) {
  test::FakeNetwork network;
  const auto made = client();
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) threads.emplace_back([&] { made->session(); });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(network.configurations().size(), 1u);
}

HTTPHeaders authorization(const std::string& user, const std::string& pass) {
  test::FakeNetwork network;
  const auto made = WebDAVClient::make(FPBridge::Config{1, user, pass, ""}, std::nullopt);
  made->session();
  return network.configurations().at(0).HTTPAdditionalHeaders;
}

TEST(WebDAVClientSession, SendsBasicCredentialsWithEveryRequest) {
  EXPECT_EQ(authorization("u", "p"), (HTTPHeaders{{"Authorization", "Basic dTpw"}}));
}

TEST(WebDAVClientSession, CredentialsAreSentAsTheyAre) {
  EXPECT_EQ(authorization("ü:", ":\n").at(0).second,
            "Basic w7w6Ojo"
            "K");
  EXPECT_EQ(authorization("", "").at(0).second, "Basic Og==");
}

TEST(WebDAVClientSession, LongCredentialsAreNotBroken) {
  EXPECT_EQ(authorization(std::string(300, 'a'), "b").at(0).second.find_first_of("\r\n"),
            std::string::npos);
}

TEST(WebDAVClientSession, AnswersEveryKnownAuthorizationCase) {
  test::checkCases("network", "authorization_header", [](const test::Case& one) {
    return JSONValue(
        authorization(*one.input.member("user")->string(), *one.input.member("pass")->string())
            .at(0)
            .second);
  });
}

}  // namespace
}  // namespace kestrowan
