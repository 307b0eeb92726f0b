#include "host/VersionRules.h"

#include <gtest/gtest.h>

namespace kestrowan::host {
namespace {

TEST(VersionRules, AVersionWithAWordInThePlaceOfATagSaysNothing) {
  for (const char* word : {"new", "modified", "downloaded", "root"}) {
    EXPECT_TRUE(saysNothing(std::string(word) + "|Sat, 21 Nov 2026 12:00:00 GMT|17")) << word;
    EXPECT_TRUE(saysNothing(std::string(word) + "||")) << word;
    EXPECT_TRUE(saysNothing(word)) << word;
  }
}

TEST(VersionRules, AServersTagSaysSomething) {
  for (const char* tag : {"\"new\"", "W/\"new\"", "\"5f3-62\"", "newer", "New", "new ", "1"}) {
    EXPECT_FALSE(saysNothing(std::string(tag) + "|Sat, 21 Nov 2026 12:00:00 GMT|17")) << tag;
  }
  // Without a tag, date and size are what there is.
  EXPECT_FALSE(saysNothing("|Sat, 21 Nov 2026 12:00:00 GMT|17"));
  EXPECT_FALSE(saysNothing(""));
}

TEST(VersionRules, ATagMayHoldWhatSeparatesTheParts) {
  EXPECT_FALSE(saysNothing("\"new|x\"|date|17"));
  EXPECT_FALSE(saysNothing("new|x|date|17"));
}

TEST(VersionRules, OnlyTheStrengthOfATagMakesNoDifference) {
  EXPECT_TRUE(sameContents("\"a\"|date|1", "\"a\"|date|1"));
  EXPECT_TRUE(sameContents("W/\"a\"|date|1", "\"a\"|date|1"));
  EXPECT_TRUE(sameContents("\"a\"|date|1", "W/\"a\"|date|1"));
  EXPECT_FALSE(sameContents("W/\"a\"|date|1", "\"b\"|date|1"));
  EXPECT_FALSE(sameContents("\"a\"|date|1", "\"a\"|date|2"));
  EXPECT_FALSE(sameContents("\"a\"|date|1", "\"a\"|later|1"));
}

}  // namespace
}  // namespace kestrowan::host
