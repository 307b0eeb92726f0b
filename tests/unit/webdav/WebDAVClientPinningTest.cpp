#include <gtest/gtest.h>

#include "support/FakeSession.h"
#include "support/RecordingLog.h"
#include "webdav/WebDAVClient.h"

namespace kestrowan {
namespace {

using Disposition = NSURLSessionAuthChallengeDisposition;

constexpr std::string_view kMismatchLine =
    "com.kestrowan.app.FileProvider:ext cert pin mismatch — refusing loopback connection";

class WebDAVClientPinning : public ::testing::Test {
 protected:
  struct Decision {
    Disposition disposition;
    std::optional<NSURLCredential> credential;
  };

  /// The one decision about `challenge`, made before the callback returned.
  Decision decide(std::optional<NSData> pin, const NSURLAuthenticationChallenge& challenge) {
    const auto client = WebDAVClient::make(FPBridge::Config{1, "", "", ""}, std::move(pin));
    std::vector<Decision> decisions;
    const auto session = NSURLSession::session({}, client);
    client->urlSession(*session, challenge,
                       [&](Disposition disposition, std::optional<NSURLCredential> credential) {
                         decisions.push_back({disposition, std::move(credential)});
                       });
    EXPECT_EQ(decisions.size(), 1u);
    return decisions.at(0);
  }

  static NSURLAuthenticationChallenge presenting(std::vector<SecCertificate> chain) {
    auto trust = std::make_shared<const SecTrust>(SecTrust{std::move(chain)});
    return {{std::string(NSURLAuthenticationMethodServerTrust), std::move(trust)}};
  }

  static void expectCancelled(const Decision& decision) {
    EXPECT_EQ(decision.disposition, Disposition::cancelAuthenticationChallenge);
    EXPECT_FALSE(decision.credential);
  }

  test::RecordingLog log_;
  test::FakeNetwork network_;
};

TEST_F(WebDAVClientPinning, AcceptsTheServerWhoseLeafEqualsThePin) {
  const auto challenge = presenting({{"DER"}, {"other"}});
  const auto decision = decide("DER", challenge);
  EXPECT_EQ(decision.disposition, Disposition::useCredential);
  ASSERT_TRUE(decision.credential);
  EXPECT_EQ(decision.credential->trust, challenge.protectionSpace.serverTrust);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(WebDAVClientPinning, RefusesAnotherLeafThoughTheChainHoldsThePinAndLogsIt) {
  expectCancelled(decide("DER", presenting({{"other"}, {"DER"}})));
  EXPECT_EQ(log_.lines(), std::vector<std::string>{std::string(kMismatchLine)});
}

TEST_F(WebDAVClientPinning, ComparesWholeByteStrings) {
  expectCancelled(decide("DER", presenting({{"DE"}})));
  expectCancelled(decide("DER", presenting({{"DERX"}})));
  expectCancelled(decide(NSData("D\0R", 3), presenting({{NSData("D\0S", 3)}})));
  EXPECT_EQ(log_.lines().size(), 3u);
}

TEST_F(WebDAVClientPinning, AnEmptyPinIsAMismatch) {
  expectCancelled(decide("", presenting({{"DER"}})));
  EXPECT_EQ(log_.lines().size(), 1u);
}

TEST_F(WebDAVClientPinning, WithoutAPinEverythingIsRefusedInSilence) {
  expectCancelled(decide(std::nullopt, presenting({{"DER"}})));
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(WebDAVClientPinning, WithoutATrustOrACertificateItIsRefusedInSilence) {
  expectCancelled(decide("DER", {{std::string(NSURLAuthenticationMethodServerTrust), nullptr}}));
  expectCancelled(decide("DER", presenting({})));
  expectCancelled(decide("DER", {{std::string(NSURLAuthenticationMethodServerTrust),
                                  std::make_shared<const SecTrust>(SecTrust{std::nullopt})}}));
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(WebDAVClientPinning, ChallengesOfAnyOtherMethodAreCancelled) {
  for (const auto method :
       {NSURLAuthenticationMethodClientCertificate, NSURLAuthenticationMethodHTTPBasic}) {
    auto challenge = presenting({{"DER"}});
    challenge.protectionSpace.authenticationMethod = method;
    expectCancelled(decide("DER", challenge));
  }
  EXPECT_TRUE(log_.lines().empty());
}

}  // namespace
}  // namespace kestrowan
