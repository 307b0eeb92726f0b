#include "platform/foundation/UTF8.h"

#include <gtest/gtest.h>

namespace kestrowan {
namespace {

TEST(UTF8Test, EveryScalarValueGoesThereAndBack) {
  for (char32_t codePoint = 0; codePoint <= 0x10FFFF; ++codePoint) {
    if (codePoint >= 0xD800 && codePoint <= 0xDFFF) continue;
    std::string text;
    appendUTF8(text, codePoint);
    ASSERT_EQ(utf8SequenceLength(text), text.size()) << static_cast<unsigned>(codePoint);
    ASSERT_EQ(utf8CodePoint(text), codePoint);
  }
}

TEST(UTF8Test, SequenceLengthLooksAtTheFirstSequenceOnly) {
  EXPECT_EQ(utf8SequenceLength("a\xFF"), 1U);
  EXPECT_EQ(utf8SequenceLength("\xC3\xA9z"), 2U);
  EXPECT_EQ(utf8SequenceLength("\xE2\x82\xAC\xFF"), 3U);
  EXPECT_EQ(utf8SequenceLength("\xF0\x9F\x98\x80"
                               "a"),
            4U);
  EXPECT_EQ(utf8SequenceLength(""), 0U);
}

TEST(UTF8Test, IllFormedSequencesHaveNoLength) {
  for (const auto* text :
       {"\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xED\xBF\xBF",
        "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "\xC3",
        "\xC3"
        "a",
        "\xE2\x82",
        "\xE2\x82"
        "a",
        "\xF0\x9F\x98",
        "\xF0\x9F\x98"
        "a",
        "\xE2"
        "a\xAC"}) {
    EXPECT_EQ(utf8SequenceLength(text), 0U) << text;
  }
}

TEST(UTF8Test, ASCIIEndsAt0x7F) {
  EXPECT_TRUE(isASCII(""));
  EXPECT_TRUE(isASCII(std::string("a\0\x7F", 3)));
  EXPECT_FALSE(isASCII("a\x80"));
}

}  // namespace
}  // namespace kestrowan
