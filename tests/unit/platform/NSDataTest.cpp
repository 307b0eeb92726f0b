#include "platform/foundation/NSData.h"

#include <gtest/gtest.h>

#include <random>

#include "support/Cases.h"

namespace kestrowan {
namespace {

TEST(NSDataTest, Base64DecodesAsExpected) {
  test::checkCases("base64-pem", "base64_decode", [](const test::Case& one) -> JSONValue {
    const auto data = dataFromBase64(one.bytes);
    return data ? JSONValue(test::hexFromBytes(*data)) : JSONValue();
  });
}

TEST(NSDataTest, EmptyTextIsPresentAndEmpty) {
  EXPECT_EQ(dataFromBase64(""), NSData());
  EXPECT_EQ(base64EncodedString(""), "");
}

TEST(NSDataTest, EveryByteOutsideTheAlphabetGivesNothing) {
  constexpr std::string_view kLetters =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (int byte = 0; byte < 256; ++byte) {
    const char character = static_cast<char>(byte);
    const bool isLetter = kLetters.find(character) != std::string_view::npos;
    for (std::size_t position = 0; position < 4; ++position) {
      std::string text = "QUJDQUJD";
      text[position] = character;
      EXPECT_EQ(dataFromBase64(text).has_value(), isLetter) << byte << " at " << position;
    }
  }
}

TEST(NSDataTest, PaddingIsTakenOnlyWhereItIsDue) {
  EXPECT_EQ(dataFromBase64("QUI="), "AB");
  EXPECT_EQ(dataFromBase64("QQ=="), "A");
  for (const auto* text : {"=", "==", "===", "====", "Q===", "QQ=", "QQQ", "QQ", "Q",
                           "QUJD=", "QUJD====", "QQ==QQ==", "QQ===", "QUJ=QUJD", "Q=Q="}) {
    EXPECT_EQ(dataFromBase64(text), std::nullopt) << text;
  }
}

TEST(NSDataTest, UnusedBitsNeedNotBeZero) {
  EXPECT_EQ(dataFromBase64("QR=="), "A");
  EXPECT_EQ(dataFromBase64("QUL="), "AB");
}

TEST(NSDataTest, BytesGoThereAndBack) {
  std::mt19937 random(7);
  for (std::size_t length = 0; length < 200; ++length) {
    NSData data;
    for (std::size_t i = 0; i < length; ++i) data += static_cast<char>(random());
    const auto text = base64EncodedString(data);
    EXPECT_EQ(text.size(), (length + 2) / 3 * 4);
    EXPECT_EQ(dataFromBase64(text), data);
  }
}

TEST(NSDataTest, LongDataGoesThereAndBack) {
  NSData data;
  for (int i = 0; i < 1'000'000; ++i) data += static_cast<char>(i * 31 + i / 256);
  const auto text = base64EncodedString(data);
  EXPECT_EQ(text.size(), 1'333'336U);
  EXPECT_EQ(text.find('\n'), std::string::npos);
  EXPECT_EQ(dataFromBase64(text), data);
}

TEST(NSDataTest, KnownTextsAreEncoded) {
  EXPECT_EQ(base64EncodedString("u:p"), "dTpw");
  EXPECT_EQ(base64EncodedString("f"), "Zg==");
  EXPECT_EQ(base64EncodedString("fo"), "Zm8=");
  EXPECT_EQ(base64EncodedString("\xFB\xFF\xBF"), "+/+/");
}

}  // namespace
}  // namespace kestrowan
