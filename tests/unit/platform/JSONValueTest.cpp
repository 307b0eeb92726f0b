#include "platform/foundation/JSONValue.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace kestrowan {
namespace {

std::string echoed(std::string_view text) {
  const auto value = JSONValue::parse(text);
  return value ? value->serialized() : "not well-formed";
}

TEST(JSONValueTest, EveryKindIsParsed) {
  EXPECT_TRUE(JSONValue::parse("null")->isNull());
  EXPECT_EQ(*JSONValue::parse("true")->boolean(), true);
  EXPECT_EQ(*JSONValue::parse("-12")->integer(), -12);
  EXPECT_EQ(*JSONValue::parse("1.5")->number(), 1.5);
  EXPECT_EQ(*JSONValue::parse("\"a\"")->string(), "a");
  EXPECT_EQ(JSONValue::parse("[1,2]")->array()->size(), 2U);
  EXPECT_EQ(JSONValue::parse("{\"a\":1}")->object()->size(), 1U);
}

TEST(JSONValueTest, AccessorsOfOtherKindsGiveNull) {
  const JSONValue value(1);
  EXPECT_FALSE(value.isNull());
  EXPECT_EQ(value.boolean(), nullptr);
  EXPECT_EQ(value.number(), nullptr);
  EXPECT_EQ(value.string(), nullptr);
  EXPECT_EQ(value.array(), nullptr);
  EXPECT_EQ(value.object(), nullptr);
  EXPECT_EQ(value.member("a"), nullptr);
}

TEST(JSONValueTest, OrderOfMembersIsKept) {
  EXPECT_EQ(echoed(R"( {"b": 1, "a": [ ], "c": {} , "B":null} )"),
            R"({"b":1,"a":[],"c":{},"B":null})");
}

TEST(JSONValueTest, NestedValuesComeBack) {
  const std::string text = R"([[],[[]],{"a":{"b":[1,{"c":[true,false,null]}]}},"x",-1])";
  EXPECT_EQ(echoed(text), text);
}

TEST(JSONValueTest, FirstMemberOfANameIsFound) {
  const auto value = JSONValue::parse(R"({"a":1,"b":2,"a":3})");
  EXPECT_EQ(*value->member("a")->integer(), 1);
  EXPECT_EQ(*value->member("b")->integer(), 2);
  EXPECT_EQ(value->member("c"), nullptr);
}

TEST(JSONValueTest, IntegersKeepTheWholeRange) {
  EXPECT_EQ(echoed("[9223372036854775807,-9223372036854775808]"),
            "[9223372036854775807,-9223372036854775808]");
  EXPECT_EQ(*JSONValue::parse("9223372036854775808")->number(), 9223372036854775808.0);
}

TEST(JSONValueTest, NumbersKeepTheirValue) {
  for (const double number : {0.1, -2.5, 1e300, 5e-324, 784887151.25, 1.0 / 3}) {
    const auto text = JSONValue(number).serialized();
    EXPECT_EQ(*JSONValue::parse(text)->number(), number) << text;
  }
}

TEST(JSONValueTest, NumbersThatJSONCannotSpellAreNull) {
  EXPECT_EQ(JSONValue(std::nan("")).serialized(), "null");
  EXPECT_EQ(JSONValue(std::numeric_limits<double>::infinity()).serialized(), "null");
}

TEST(JSONValueTest, TextIsOneLineWhateverItHolds) {
  using namespace std::string_literals;
  EXPECT_EQ(JSONValue("\"\\\b\f\n\r\t\0\x1F/\x7F"s).serialized(),
            "\"\\\"\\\\\\b\\f\\n\\r\\t\\u0000\\u001f/\x7F\"");
  EXPECT_EQ(JSONValue("é日😀").serialized(), "\"é日😀\"");
}

TEST(JSONValueTest, EveryTextComesBack) {
  std::string text;
  for (char character = 0; character < 127; ++character) text += character;
  text += "é\u2028😀";
  EXPECT_EQ(*JSONValue::parse(JSONValue(text).serialized())->string(), text);
}

TEST(JSONValueTest, BytesThatAreNotUTF8AreReplaced) {
  EXPECT_EQ(JSONValue("a\xFF\xC3z").serialized(), "\"a\xEF\xBF\xBD\xEF\xBF\xBDz\"");
  EXPECT_EQ(JSONValue(JSONValue::Object{{"\x80", 1}}).serialized(), "{\"\xEF\xBF\xBD\":1}");
}

TEST(JSONValueTest, OptionalsAreTheirValueOrNull) {
  EXPECT_TRUE(JSONValue(std::optional<std::string>()).isNull());
  EXPECT_EQ(*JSONValue(std::optional<std::int64_t>(5)).integer(), 5);
}

TEST(JSONValueTest, TextThatIsNotOneValueIsNothing) {
  for (const auto* text : {"", " ", "nul", "1 2", "[1,]", "{\"a\":}", "{\"a\"}", "[", "]", "01",
                           "\"", "\"\\q\"", "\"\xFF\"", "1e400", "{1:2}", "'a'", "//c\n1"}) {
    EXPECT_EQ(JSONValue::parse(text), std::nullopt) << text;
  }
  EXPECT_EQ(JSONValue::parse(std::string_view("1\0", 2)), std::nullopt);
}

TEST(JSONValueTest, NestingIsLimitedTo512) {
  const auto nested = [](std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_EQ(echoed(nested(512)), nested(512));
  EXPECT_EQ(JSONValue::parse(nested(513)), std::nullopt);
  EXPECT_EQ(JSONValue::parse(nested(1'000'000)), std::nullopt);
}

TEST(JSONValueTest, EqualValuesAreEqual) {
  EXPECT_EQ(JSONValue::parse(R"({"a":[1,"x"]})"),
            JSONValue(JSONValue::Object{{"a", JSONValue::Array{1, "x"}}}));
  EXPECT_NE(JSONValue(1), JSONValue("1"));
}

}  // namespace
}  // namespace kestrowan
