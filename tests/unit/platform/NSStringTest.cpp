#include "platform/foundation/NSString.h"

#include <gtest/gtest.h>

#include <limits>

#include "platform/foundation/UTF8.h"
#include "support/Cases.h"

namespace kestrowan {
namespace {

using test::Case;
using test::checkCases;

JSONValue textOrNull(const std::optional<std::string>& text) {
  return JSONValue(text);
}

/// The character that "U+00A0" names, as UTF-8.
std::string characterNamed(const std::string& name) {
  std::string character;
  appendUTF8(character, static_cast<char32_t>(std::stoul(name.substr(2), nullptr, 16)));
  return character;
}

TEST(NSStringTest, LastPathComponentsAreAsExpected) {
  checkCases("path-components", "last_path_component",
             [](const Case& one) { return lastPathComponent(one.bytes); });
}

TEST(NSStringTest, PathsBeforeTheLastComponentAreAsExpected) {
  checkCases("path-components", "deleting_last_path_component",
             [](const Case& one) { return stringByDeletingLastPathComponent(one.bytes); });
}

TEST(NSStringTest, PathExtensionsAreAsExpected) {
  checkCases("path-components", "path_extension",
             [](const Case& one) { return pathExtension(one.bytes); });
}

TEST(NSStringTest, DeletingTheLastComponentCompressesRunsOfSlashes) {
  EXPECT_EQ(stringByDeletingLastPathComponent("/a//b/c"), "/a/b");
  EXPECT_EQ(stringByDeletingLastPathComponent("a//b//c//"), "a/b");
  EXPECT_EQ(stringByDeletingLastPathComponent("//a//b"), "/a");
  EXPECT_EQ(stringByDeletingLastPathComponent("///a"), "/");
}

TEST(NSStringTest, DeletingTheOnlyComponentOfARelativePathLeavesNothing) {
  EXPECT_EQ(stringByDeletingLastPathComponent("a"), "");
  EXPECT_EQ(stringByDeletingLastPathComponent("a//"), "");
}

TEST(NSStringTest, BlankOrDirectionalControlMeansNoExtension) {
  for (const auto* control :
       {"U+0020", "U+061C", "U+200E", "U+200F", "U+202A", "U+202E", "U+2066", "U+2069"}) {
    EXPECT_EQ(pathExtension("/a.b" + characterNamed(control) + "c"), "") << control;
    EXPECT_EQ(pathExtension("/a" + characterNamed(control) + ".b"), "b") << control;
  }
  EXPECT_EQ(pathExtension("/a.b\xE2\x80\x8B"), "b\xE2\x80\x8B");
}

TEST(NSStringTest, LastFullStopAtEitherEndGivesNoExtension) {
  EXPECT_EQ(pathExtension("/.hidden"), "");
  EXPECT_EQ(pathExtension("/a."), "");
  EXPECT_EQ(pathExtension("/a.b."), "");
  EXPECT_EQ(pathExtension("/.hidden.txt"), "txt");
  EXPECT_EQ(pathExtension("/dir.d/name"), "");
  EXPECT_EQ(pathExtension("/"), "");
  EXPECT_EQ(pathExtension("/a.b//"), "b");
}

TEST(NSStringTest, PercentEscapesAreDecodedAsExpected) {
  checkCases("percent-decode", "percent_decode_or_same", [](const Case& one) {
    return stringByRemovingPercentEncoding(one.bytes).value_or(one.bytes);
  });
}

TEST(NSStringTest, PercentDecodingSaysWhetherItSucceeded) {
  for (const auto& one : test::casesOf("percent-decode", "percent_decode_or_same")) {
    const auto* decodes = one.members.member("decodes");
    ASSERT_TRUE(decodes && decodes->boolean());
    EXPECT_EQ(stringByRemovingPercentEncoding(one.bytes).has_value(), *decodes->boolean())
        << one.id;
  }
}

TEST(NSStringTest, MalformedEscapeOrBytesDecodeToNothing) {
  for (const auto* text : {"%", "%4", "a%4", "%4g", "%g4", "%%41", "%+1", "% 1", "%-1", "%FF",
                           "%C0%AF", "%ED%A0%80", "%F4%90%80%80", "%E2%82", "%41%", "\xFF"}) {
    EXPECT_EQ(stringByRemovingPercentEncoding(text), std::nullopt) << text;
  }
}

TEST(NSStringTest, EscapesAreDecodedOnlyOnce) {
  EXPECT_EQ(stringByRemovingPercentEncoding("%2541"), "%41");
  EXPECT_EQ(stringByRemovingPercentEncoding("%c3%A9+%2f"), "\xC3\xA9+/");
  EXPECT_EQ(stringByRemovingPercentEncoding("\xC3%A9"), "\xC3\xA9");
  EXPECT_EQ(stringByRemovingPercentEncoding("%00"), std::string(1, '\0'));
}

TEST(NSStringTest, TrimmedTextIsAsExpected) {
  checkCases("whitespace", "trim",
             [](const Case& one) { return std::string(trimmingWhitespaceAndNewlines(one.bytes)); });
}

TEST(NSStringTest, TrimmedCharactersAreAsExpected) {
  checkCases("whitespace", "is_whitespace_or_newline", [](const Case& one) {
    return trimmingWhitespaceAndNewlines(characterNamed(one.bytes)).empty();
  });
}

TEST(NSStringTest, ExactlyTwentySixCharactersAreTrimmed) {
  int count = 0;
  for (char32_t codePoint = 0; codePoint <= 0x10FFFF; ++codePoint) {
    if (codePoint >= 0xD800 && codePoint <= 0xDFFF) continue;
    std::string character;
    appendUTF8(character, codePoint);
    const bool fromFront = trimmingWhitespaceAndNewlines(character + "x") == "x";
    EXPECT_EQ(fromFront, trimmingWhitespaceAndNewlines("x" + character) == "x");
    if (fromFront) ++count;
  }
  EXPECT_EQ(count, 26);
}

TEST(NSStringTest, TrimmingKeepsWhatIsInside) {
  const std::string text =
      " \t\xC2\xA0"
      "a \n b"
      "\xE3\x80\x80\r\n";
  const auto trimmed = trimmingWhitespaceAndNewlines(text);
  EXPECT_EQ(trimmed, "a \n b");
  EXPECT_EQ(trimmed.data(), text.data() + 4);
}

TEST(NSStringTest, NumbersInTextAreAsExpected) {
  checkCases("int64-text", "parse_int64", [](const Case& one) -> JSONValue {
    const auto value = int64FromText(one.bytes);
    return value ? JSONValue(*value) : JSONValue();
  });
}

TEST(NSStringTest, TrimmedLengthsAreAsExpected) {
  checkCases("int64-text", "getcontentlength_text", [](const Case& one) -> JSONValue {
    return int64FromText(trimmingWhitespaceAndNewlines(one.bytes)).value_or(0);
  });
}

TEST(NSStringTest, WholeRangeOfNumbersIsRead) {
  EXPECT_EQ(int64FromText("-9223372036854775808"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(int64FromText("9223372036854775807"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(int64FromText("000000000000000000000000000042"), 42);
  EXPECT_EQ(int64FromText("+-1"), std::nullopt);
  EXPECT_EQ(int64FromText("-+1"), std::nullopt);
  EXPECT_EQ(int64FromText("-"), std::nullopt);
}

TEST(NSStringTest, EqualityOfTextsIsAsExpected) {
  checkCases("string-equality", "string_equal", [](const Case& one) {
    const auto& pair = *one.input.array();
    return isEqualToString(*pair.at(0).string(), *pair.at(1).string());
  });
}

TEST(NSStringTest, SignsThatAreTheSameLetterAreEqual) {
  EXPECT_TRUE(isEqualToString("\xE2\x84\xAA", "K"));
  EXPECT_TRUE(isEqualToString("K", "\xE2\x84\xAA"));
  EXPECT_TRUE(isEqualToString("\xE2\x84\xAB", "A\xCC\x8A"));
  EXPECT_FALSE(isEqualToString("\xE2\x84\xAA", "k"));
}

TEST(NSStringTest, NullCharactersCountInComparisons) {
  using namespace std::string_literals;
  EXPECT_FALSE(isEqualToString("a\0b"s, "a\0c"s));
  EXPECT_FALSE(isEqualToString("\xC3\xA9\0b"s, "e\xCC\x81\0c"s));
  EXPECT_TRUE(isEqualToString("\xC3\xA9\0b"s, "e\xCC\x81\0b"s));
  EXPECT_FALSE(isEqualToString("\xC3\xA9", "\xC3\xA9\0"s));
}

TEST(NSStringTest, TextsThatAreNotUTF8AreEqualByTheirBytes) {
  EXPECT_TRUE(isEqualToString("\xFF", "\xFF"));
  EXPECT_FALSE(isEqualToString("\xFF", "\xFE"));
  EXPECT_FALSE(isEqualToString("\xFF\xC3\xA9",
                               "\xFF"
                               "e\xCC\x81"));
  EXPECT_FALSE(isEqualToString("\xFF", "\xEF\xBF\xBD"));
}

TEST(NSStringTest, LowerCaseNamesAreAsExpected) {
  checkCases("string-equality", "lower_case_name",
             [](const Case& one) { return lowercaseString(one.bytes); });
}

TEST(NSStringTest, LettersOfEveryScriptAreLowered) {
  EXPECT_EQ(lowercaseString("ABCxyz[@`{09"), "abcxyz[@`{09");
  EXPECT_EQ(lowercaseString("\xC3\x89"
                            "A"),
            "\xC3\xA9"
            "a");
  EXPECT_EQ(lowercaseString("\xCE\x91\xCE\xA3"), "\xCE\xB1\xCF\x82");  // a final sigma
  EXPECT_EQ(lowercaseString("\xFF"
                            "A"),
            "\xFF"
            "a");
  EXPECT_EQ(lowercaseString(""), "");
}

TEST(NSStringTest, TextIsUTF8OrNot) {
  EXPECT_TRUE(isValidUTF8(""));
  EXPECT_TRUE(isValidUTF8("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"));
  EXPECT_FALSE(isValidUTF8("a\x80"));
  EXPECT_FALSE(isValidUTF8("\xC3"));
}

TEST(NSStringTest, PathFunctionsPutAPathTogetherAgain) {
  EXPECT_EQ(textOrNull(stringByDeletingLastPathComponent("/a/b") + "/" + lastPathComponent("/a/b")),
            JSONValue("/a/b"));
}

}  // namespace
}  // namespace kestrowan
