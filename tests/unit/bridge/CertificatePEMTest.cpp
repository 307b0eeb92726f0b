#include "bridge/CertificatePEM.h"

#include <gtest/gtest.h>

#include "support/Cases.h"

namespace kestrowan {
namespace {

TEST(CertificatePEM, AnswersEveryKnownCase) {
  test::checkCases("base64-pem", "pem_to_der", [](const test::Case& one) -> JSONValue {
    const auto der = FPBridge::derFromPEM(one.bytes);
    return der ? JSONValue(test::hexFromBytes(*der)) : JSONValue();
  });
}

TEST(CertificatePEM, LineEndsOfCarriageReturnAndLineFeedAreTakenOut) {
  EXPECT_EQ(FPBridge::derFromPEM("-----BEGIN CERTIFICATE-----\r\nQUJD\r\nREVG\r\n"
                                 "-----END CERTIFICATE-----\r\n"),
            "ABCDEF");
}

TEST(CertificatePEM, BlanksAndTabsMakeItAbsent) {
  EXPECT_EQ(FPBridge::derFromPEM("-----BEGIN CERTIFICATE-----\n  QUJD\n"
                                 "-----END CERTIFICATE-----\n"),
            std::nullopt);
  EXPECT_EQ(FPBridge::derFromPEM("QUJD\t"), std::nullopt);
}

TEST(CertificatePEM, EmptyTextGivesPresentEmptyBytes) {
  EXPECT_EQ(FPBridge::derFromPEM(""), "");
  EXPECT_EQ(FPBridge::derFromPEM("-----BEGIN CERTIFICATE----------END CERTIFICATE-----"), "");
}

TEST(CertificatePEM, TwoUnpaddedCertificatesAreJoined) {
  EXPECT_EQ(FPBridge::derFromPEM("-----BEGIN CERTIFICATE-----\nQUJD\n-----END CERTIFICATE-----\n"
                                 "-----BEGIN CERTIFICATE-----\nREVG\n-----END CERTIFICATE-----\n"),
            "ABCDEF");
}

TEST(CertificatePEM, TwoPaddedCertificatesMakeItAbsent) {
  EXPECT_EQ(FPBridge::derFromPEM("-----BEGIN CERTIFICATE-----\nQQ==\n-----END CERTIFICATE-----\n"
                                 "-----BEGIN CERTIFICATE-----\nQQ==\n-----END CERTIFICATE-----\n"),
            std::nullopt);
}

TEST(CertificatePEM, ArmourIsRemovedOncePerOccurrenceAndNotAgain) {
  // Removing the inner armour leaves text that reads like armour; it stays and is no base64.
  EXPECT_EQ(FPBridge::derFromPEM("-----BEGIN -----BEGIN CERTIFICATE-----CERTIFICATE-----"),
            std::nullopt);
}

}  // namespace
}  // namespace kestrowan
