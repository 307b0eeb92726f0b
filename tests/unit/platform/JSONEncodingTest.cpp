#include "platform/foundation/JSONEncoding.h"

#include <gtest/gtest.h>

#include "platform/foundation/UTF8.h"

namespace kestrowan {
namespace {

const std::u32string kText = U"{\"é日😀\":1}";

std::string utf8(const std::u32string& text) {
  std::string encoded;
  for (const auto character : text) appendUTF8(encoded, character);
  return encoded;
}

/// Bytes of one unit, in either order.
std::string unit(char32_t value, int size, bool bigEndian) {
  std::string bytes;
  for (int i = 0; i < size; ++i) {
    const int shift = 8 * (bigEndian ? size - 1 - i : i);
    bytes += static_cast<char>(value >> shift & 0xFF);
  }
  return bytes;
}

std::string utf16(const std::u32string& text, bool bigEndian) {
  std::string bytes;
  for (const auto character : text) {
    if (character < 0x10000) {
      bytes += unit(character, 2, bigEndian);
    } else {
      bytes += unit(0xD800 + ((character - 0x10000) >> 10), 2, bigEndian);
      bytes += unit(0xDC00 + ((character - 0x10000) & 0x3FF), 2, bigEndian);
    }
  }
  return bytes;
}

std::string utf32(const std::u32string& text, bool bigEndian) {
  std::string bytes;
  for (const auto character : text) bytes += unit(character, 4, bigEndian);
  return bytes;
}

TEST(JSONEncodingTest, UTF8IsPassedOnWithoutItsMark) {
  EXPECT_EQ(utf8FromJSONText(utf8(kText)), utf8(kText));
  EXPECT_EQ(utf8FromJSONText(utf8(U"\uFEFF" + kText)), utf8(kText));
  EXPECT_EQ(utf8FromJSONText("\xFF"), "\xFF");
  EXPECT_EQ(utf8FromJSONText(""), "");
}

TEST(JSONEncodingTest, WiderEncodingsAreToldByTheirFirstBytes) {
  for (const bool bigEndian : {false, true}) {
    EXPECT_EQ(utf8FromJSONText(utf16(kText, bigEndian)), utf8(kText));
    EXPECT_EQ(utf8FromJSONText(utf32(kText, bigEndian)), utf8(kText));
    EXPECT_EQ(utf8FromJSONText(utf16(U"\uFEFF" + kText, bigEndian)), utf8(kText));
    EXPECT_EQ(utf8FromJSONText(utf32(U"\uFEFF" + kText, bigEndian)), utf8(kText));
  }
}

TEST(JSONEncodingTest, LoneSurrogatesGiveNothing) {
  for (const bool bigEndian : {false, true}) {
    const auto opening = utf16(U"{\"", bigEndian);
    const auto high = unit(0xD800, 2, bigEndian);
    const auto low = unit(0xDC00, 2, bigEndian);
    EXPECT_TRUE(utf8FromJSONText(opening + high + low));
    EXPECT_EQ(utf8FromJSONText(opening + low), std::nullopt);
    EXPECT_EQ(utf8FromJSONText(opening + high), std::nullopt);
    EXPECT_EQ(utf8FromJSONText(opening + high + high), std::nullopt);
    EXPECT_EQ(utf8FromJSONText(opening + high + utf16(U"a", bigEndian)), std::nullopt);
    EXPECT_EQ(utf8FromJSONText(utf32(U"{", bigEndian) + unit(0xD800, 4, bigEndian)), std::nullopt);
  }
}

TEST(JSONEncodingTest, NumbersThatAreNoCharactersGiveNothing) {
  EXPECT_EQ(utf8FromJSONText(utf32(U"{", true) + unit(0x110000, 4, true)), std::nullopt);
  EXPECT_EQ(utf8FromJSONText(utf32(U"{", false) + unit(0xFFFFFFFF, 4, false)), std::nullopt);
}

TEST(JSONEncodingTest, UnitsCutShortGiveNothing) {
  EXPECT_EQ(utf8FromJSONText(utf16(kText, true) + "a"), std::nullopt);
  EXPECT_EQ(utf8FromJSONText(utf32(kText, false) + "abc"), std::nullopt);
}

TEST(JSONEncodingTest, MarksAloneAreEmptyTexts) {
  for (const auto* mark : {"\xEF\xBB\xBF", "\xFE\xFF", "\xFF\xFE"}) {
    EXPECT_EQ(utf8FromJSONText(mark), "") << mark;
  }
}

}  // namespace
}  // namespace kestrowan
