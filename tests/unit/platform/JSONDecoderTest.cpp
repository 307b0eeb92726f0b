#include "platform/foundation/JSONDecoder.h"

#include <gtest/gtest.h>

#include <functional>

#include "platform/foundation/NSError.h"
#include "support/Cases.h"

namespace kestrowan {
namespace {

/// The code of the error that `body` throws, 0 when it throws none.
std::int64_t codeThrownBy(const std::function<void()>& body) {
  try {
    body();
  } catch (const NSError& error) {
    EXPECT_EQ(error.domain(), NSCocoaErrorDomain);
    return error.code();
  }
  return 0;
}

std::int64_t codeOfParsing(const std::string& json) {
  return codeThrownBy([&] { KeyedDecodingContainer container(json); });
}

std::int64_t numberIn(const std::string& json) {
  return KeyedDecodingContainer(json).decodeInt64("n");
}

std::string textIn(const std::string& json) {
  return KeyedDecodingContainer(json).decodeString("s");
}

TEST(JSONDecoderTest, RecordsAreDecodedAsExpected) {
  test::checkCases("json-config", "load_config",
                   [](const test::Case& one) -> JSONValue {
                     try {
                       const KeyedDecodingContainer container(one.bytes);
                       return JSONValue::Object{{"port", container.decodeInt64("port")},
                                                {"user", container.decodeString("user")},
                                                {"pass", container.decodeString("pass")},
                                                {"certPEM", container.decodeString("certPEM")}};
                     } catch (const NSError&) {
                       return nullptr;
                     }
                   },
                   {{"json-config-029", "exact: a whole number is not taken by way of a double"}});
}

TEST(JSONDecoderTest, MembersAreFoundByTheirUnescapedName) {
  EXPECT_EQ(numberIn(R"({"\u006e": 5})"), 5);
  EXPECT_EQ(textIn(R"({"s": "a\u00e9\ud83d\ude00\n\/"})"), "a\xC3\xA9\xF0\x9F\x98\x80\n/");
}

TEST(JSONDecoderTest, WholeNumbersMayBeWrittenWithAFraction) {
  EXPECT_EQ(numberIn(R"({"n": 8443.0})"), 8443);
  EXPECT_EQ(numberIn(R"({"n": 8443e0})"), 8443);
  EXPECT_EQ(numberIn(R"({"n": 84430e-1})"), 8443);
  EXPECT_EQ(numberIn(R"({"n": -0})"), 0);
  EXPECT_EQ(numberIn(R"({"n": -9223372036854775808})"), INT64_MIN);
  EXPECT_EQ(numberIn(R"({"n": 9223372036854775807.0})"), INT64_MAX);
}

TEST(JSONDecoderTest, ValuesOfAnotherKindAreCorrupt) {
  for (const auto* value : {"8443.5", "\"8443\"", "true", "null", "[]", "{}", "[1]", "{\"n\":1}",
                            "9223372036854775808", "18446744073709551616", "1e19"}) {
    const auto json = std::string("{\"n\":") + value + "}";
    EXPECT_EQ(codeThrownBy([&] { numberIn(json); }), NSCoderReadCorruptError) << value;
  }
  for (const auto* value : {"1", "1.5", "true", "false", "null", "[]", "{}", "[\"a\"]"}) {
    const auto json = std::string("{\"s\":") + value + "}";
    EXPECT_EQ(codeThrownBy([&] { textIn(json); }), NSCoderReadCorruptError) << value;
  }
}

TEST(JSONDecoderTest, MembersThatAreNotAskedForMayHoldAnyNumberAndHalfCharacters) {
  const std::string digits(400, '9');
  for (const auto& value :
       {std::string("1e400"), std::string("-1e400"), digits, "-" + digits + ".5", digits + "e999",
        std::string(R"("\ud800")"), std::string(R"("a\udc00b")"), std::string(R"("\ud800\ud800")"),
        std::string(R"([1e400,{"s":"\ud800"}])")}) {
    EXPECT_EQ(numberIn(R"({"x":)" + value + R"(,"n":5})"), 5) << value;
    EXPECT_EQ(textIn(R"({"\ud800":1,"x":)" + value + R"(,"s":"\ud83d\ude00"})"), "\xF0\x9F\x98\x80")
        << value;
    EXPECT_EQ(codeThrownBy([&] { numberIn(R"({"n":)" + value + "}"); }), NSCoderReadCorruptError);
    EXPECT_EQ(codeThrownBy([&] { textIn(R"({"s":)" + value + "}"); }), NSCoderReadCorruptError);
  }
}

TEST(JSONDecoderTest, NumbersThatAreNoneAreErrorsWhereverTheyStand) {
  for (const auto* value : {"01", "1.", ".5", "-", "1e", "1e+", "+1", "1-2", "0x1", "1.5.5"}) {
    EXPECT_EQ(codeOfParsing(std::string("{\"x\":") + value + ",\"n\":5}"), NSCoderReadCorruptError)
        << value;
  }
}

TEST(JSONDecoderTest, AbsentMembersAreNotFound) {
  EXPECT_EQ(codeThrownBy([] { numberIn("{}"); }), NSCoderValueNotFoundError);
  EXPECT_EQ(codeThrownBy([] { textIn("{\"S\":\"a\"}"); }), NSCoderValueNotFoundError);
  EXPECT_EQ(codeThrownBy([] { textIn("{\"x\":{\"s\":\"a\"}}"); }), NSCoderValueNotFoundError);
  EXPECT_EQ(codeThrownBy([] { textIn("{\"x\":[{\"s\":\"a\"}]}"); }), NSCoderValueNotFoundError);
}

TEST(JSONDecoderTest, FirstOfDuplicateMembersCounts) {
  EXPECT_EQ(numberIn(R"({"n": 1, "n": 2})"), 1);
  EXPECT_EQ(numberIn(R"({"n": 1, "n": "two"})"), 1);
  EXPECT_EQ(codeThrownBy([] { numberIn(R"({"n": "one", "n": 2})"); }), NSCoderReadCorruptError);
  EXPECT_EQ(codeThrownBy([] { numberIn(R"({"n": {"n": 1}, "n": 2})"); }), NSCoderReadCorruptError);
}

TEST(JSONDecoderTest, MembersBehindNestedOnesAreFound) {
  EXPECT_EQ(numberIn(R"({"a": {"n": 1, "b": [{"n": 2}]}, "c": [1, [2]], "n": 3})"), 3);
}

TEST(JSONDecoderTest, OnlyObjectsAreRecords) {
  for (const auto* json : {"",
                           " ",
                           "[]",
                           "1",
                           "\"s\"",
                           "null",
                           "true",
                           "[{}]",
                           "{} {}",
                           "{}x",
                           "{\"a\":1,}",
                           "{'a':1}",
                           "{a:1}",
                           "{\"a\":01}",
                           "{\"a\":+1}",
                           "{\"a\":.5}",
                           "{\"a\":1.}",
                           "{\"a\":0x1}",
                           "{\"a\":NaN}",
                           "{\"a\":\"\\x\"}",
                           "{\"a\":\"\n\"}",
                           "{\"a\":\"\xFF\"}",
                           "{\"a\":\"\xC0\xAF\"}",
                           "{\"\xFF\":1}",
                           "\xC2\xA0{}"}) {
    EXPECT_EQ(codeOfParsing(json), NSCoderReadCorruptError) << json;
  }
  EXPECT_EQ(codeOfParsing(" \t\r\n{ } \t\r\n"), 0);
}

TEST(JSONDecoderTest, ZeroBytesEndNothing) {
  using namespace std::string_literals;
  EXPECT_EQ(codeOfParsing("{}\0"s), NSCoderReadCorruptError);
  EXPECT_EQ(codeOfParsing("{}\0{"s), NSCoderReadCorruptError);
  EXPECT_EQ(codeOfParsing("{\"a\":\"\0\"}"s), NSCoderReadCorruptError);
  EXPECT_EQ(textIn("{\"s\":\"\\u0000\"}"), "\0"s);
}

TEST(JSONDecoderTest, NestingIsLimitedTo512WithTheOutermostObject) {
  const auto nested = [](std::size_t arrays) {
    return "{\"x\":" + std::string(arrays, '[') + std::string(arrays, ']') + ",\"n\":1}";
  };
  EXPECT_EQ(numberIn(nested(511)), 1);
  EXPECT_EQ(codeOfParsing(nested(512)), NSCoderReadCorruptError);
  EXPECT_EQ(codeOfParsing(nested(1'000'000)), NSCoderReadCorruptError);
}

TEST(JSONDecoderTest, ManySiblingsAreNotNested) {
  std::string json = "{\"x\":[";
  for (int i = 0; i < 2000; ++i) json += "[],{},";
  EXPECT_EQ(numberIn(json + "0],\"n\":1}"), 1);
}

}  // namespace
}  // namespace kestrowan
