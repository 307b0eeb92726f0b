#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "NetworkTest.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::test {
namespace {

using Disposition = NSURLSessionAuthChallengeDisposition;

const std::string kServerTrust(NSURLAuthenticationMethodServerTrust);
const std::string kClientCertificate(NSURLAuthenticationMethodClientCertificate);

std::int64_t errorFrom(Client& client) {
  return errorOf(client.session().dataTask(
      client.request("GET", "/", {{"Authorization", "Basic secret"}}), nullptr));
}

TEST(TrustTest, PinnedLeafIsAcceptedWhateverElseItIs) {
  for (const auto* version : {"1.2", "1.3"}) {
    for (const auto* chain : {"pinned", "pinned+other"}) {
      ScriptedServer server(std::string(R"({"certificate": ")") + chain + R"(", "maximumTLS": ")" +
                            version + "\"}");
      Client client(server);
      EXPECT_EQ(errorFrom(client), 0) << chain << version;
      EXPECT_EQ(client.delegate().methods(), std::vector{kServerTrust});
    }
  }
}

TEST(TrustTest, ExpiredCertificateIsTheDelegatesBusiness) {
  ScriptedServer server(R"({"certificate": "expired"})");
  const auto trusting =
      std::make_shared<TestDelegate>([](NSURLSession&, const NSURLAuthenticationChallenge&) {
        return Disposition::useCredential;
      });
  Client client(server, trusting);
  EXPECT_EQ(errorFrom(client), 0);
}

TEST(TrustTest, ChainIsPresentedLeafFirst) {
  ScriptedServer server(R"({"certificate": "pinned+other"})");
  Client client(server);
  EXPECT_EQ(errorFrom(client), 0);
  EXPECT_EQ(client.delegate().chain(), (std::vector{server.pinnedDER(), server.otherDER()}));
}

TEST(TrustTest, UnpinnedServerGetsNoByteOfTheRequest) {
  for (const auto* version : {"1.2", "1.3"}) {
    for (const auto* chain : {"other", "other+pinned", "expired"}) {
      ScriptedServer server(std::string(R"({"certificate": ")") + chain + R"(", "maximumTLS": ")" +
                            version + "\"}");
      Client client(server);
      EXPECT_EQ(errorFrom(client), NSURLErrorCancelled);
      server.waitForEvents("disconnected", 1);
      EXPECT_EQ(server.eventCount("connected"), 1u);
      EXPECT_EQ(server.eventCount("secured"), 0u) << chain << version;
      EXPECT_EQ(server.eventCount("handshakeFailed"), 1u);
      EXPECT_TRUE(server.requests().empty());
    }
  }
}

TEST(TrustTest, EveryDispositionButUseCredentialRefuses) {
  for (const auto disposition :
       {Disposition::cancelAuthenticationChallenge, Disposition::performDefaultHandling}) {
    ScriptedServer server;
    const auto delegate = std::make_shared<TestDelegate>(
        [disposition](NSURLSession&, const NSURLAuthenticationChallenge&) { return disposition; });
    Client client(server, delegate);
    EXPECT_EQ(errorFrom(client), NSURLErrorCancelled);
    EXPECT_TRUE(server.requests().empty());
  }
}

TEST(TrustTest, DelegateThatThrowsRefuses) {
  ScriptedServer server;
  const auto delegate = std::make_shared<TestDelegate>(
      [](NSURLSession&, const NSURLAuthenticationChallenge&) -> Disposition {
        throw std::runtime_error("no");
      });
  Client client(server, delegate);
  EXPECT_EQ(errorFrom(client), NSURLErrorCancelled);
}

TEST(TrustTest, MissingOrReleasedDelegateRefuses) {
  ScriptedServer server;
  const NSURLRequest request{server.url("/")};
  auto delegate = std::make_shared<TestDelegate>(server.pinnedDER());
  const auto session = NSURLSession::session({}, delegate);
  delegate.reset();
  EXPECT_EQ(errorOf(session->dataTask(request, nullptr)), NSURLErrorCancelled);
  const auto without = NSURLSession::session({}, {});
  EXPECT_EQ(errorOf(without->dataTask(request, nullptr)), NSURLErrorCancelled);
  EXPECT_TRUE(server.requests().empty());
}

TEST(TrustTest, DelegateIsAskedOncePerConnectionAndKnowsTheSession) {
  ScriptedServer server;
  NSURLSession* seen = nullptr;
  const auto delegate = std::make_shared<TestDelegate>(
      [&seen](NSURLSession& session, const NSURLAuthenticationChallenge&) {
        seen = &session;
        return Disposition::useCredential;
      });
  Client client(server, delegate);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(errorFrom(client), 0);
  EXPECT_EQ(seen, &client.session());
  EXPECT_EQ(delegate->methods().size(), 1u);
  EXPECT_EQ(server.eventCount("connected"), 1u);
  server.disconnect();
  EXPECT_EQ(errorFrom(client), 0);
  EXPECT_EQ(delegate->methods().size(), 2u);
}

TEST(TrustTest, RequestForAClientCertificateIsAChallenge) {
  for (const auto* version : {"1.2", "1.3"}) {
    for (const auto* wish : {"optional", "required"}) {
      ScriptedServer server(std::string(R"({"clientCertificate": ")") + wish +
                            R"(", "maximumTLS": ")" + version + "\"}");
      const auto delegate = std::make_shared<TestDelegate>(
          [](NSURLSession&, const NSURLAuthenticationChallenge& challenge) {
            return challenge.protectionSpace.authenticationMethod == kServerTrust
                       ? Disposition::useCredential
                       : Disposition::cancelAuthenticationChallenge;
          });
      Client client(server, delegate);
      EXPECT_EQ(errorFrom(client), NSURLErrorCancelled) << wish << version;
      server.waitForEvents("disconnected", 1);
      EXPECT_EQ(delegate->methods(), (std::vector{kServerTrust, kClientCertificate}));
      EXPECT_EQ(server.eventCount("secured"), 0u);
      EXPECT_TRUE(server.requests().empty());
    }
  }
}

TEST(TrustTest, ServerWithoutTLSIsNoSecureConnection) {
  ScriptedServer server(R"({"mode": "plain"})");
  Client client(server);
  EXPECT_EQ(errorFrom(client), NSURLErrorSecureConnectionFailed);
  EXPECT_TRUE(server.requests().empty());
}

TEST(TrustTest, OutdatedTLSIsNoSecureConnection) {
  ScriptedServer server(R"({"maximumTLS": "1.1"})");
  Client client(server);
  EXPECT_EQ(errorFrom(client), NSURLErrorSecureConnectionFailed);
}

TEST(TrustTest, KeysAreNotWrittenToAFile) {
  // Curl reads the variable when it is first used, so this needs a process of its own.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        const TemporaryDirectory directory;
        const std::string log = directory.path() + "/keys";
        ::setenv("SSLKEYLOGFILE", log.c_str(), 1);
        ScriptedServer server;
        Client client(server);
        const auto status = client.get("/").first;
        std::ifstream file(log);
        const std::string keys(std::istreambuf_iterator<char>(file), {});
        std::_Exit(status == 200 && keys.empty() ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace kestrowan::test
