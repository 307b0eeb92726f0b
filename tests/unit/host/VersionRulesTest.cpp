#include "host/VersionRules.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "items/FPItem.h"
#include "platform/foundation/NSXMLParser.h"
#include "webdav/MultiStatusParser.h"

namespace kestrowan::host {
namespace {

/// The version that our extension gives an item with these properties.
NSData versionOf(const std::string& tag, std::optional<double> date, std::int64_t size) {
  std::optional<NSDate> modified;
  if (date) modified = NSDate{*date};
  return FPItem("/Home/a", false, size, tag, modified).itemVersion().contentVersion;
}

/// The version of an entry for which a server says these properties.
NSData listedVersion(const std::string& properties) {
  MultiStatusParser parser;
  NSXMLParser xml(parser);
  xml.append(
      "<D:multistatus xmlns:D=\"DAV:\"><D:response><D:href>/Home/a</D:href>"
      "<D:propstat><D:prop>");
  xml.append(properties);
  xml.append("</D:prop></D:propstat></D:response></D:multistatus>");
  EXPECT_TRUE(xml.finish());
  const auto entries = parser.takeEntries();
  return entries.empty() ? "" : FPItem::make(entries.front())->itemVersion().contentVersion;
}

TEST(VersionRules, AVersionThatTheExtensionMadeUpSaysNothing) {
  EXPECT_TRUE(saysNothing(versionOf("new", std::nullopt, 0)));
  EXPECT_TRUE(saysNothing(versionOf("modified", std::nullopt, 0)));
  EXPECT_TRUE(saysNothing(versionOf("root", std::nullopt, 0)));
  for (const std::int64_t size : {0L, 1L, 17L, 1L << 60}) {
    EXPECT_TRUE(saysNothing(versionOf("downloaded", std::nullopt, size))) << size;
  }
}

TEST(VersionRules, AServersTagSaysSomethingEvenWhenItIsAWordOfTheExtension) {
  for (const char* tag : {"new", "modified", "root", "downloaded"}) {
    EXPECT_FALSE(saysNothing(versionOf(tag, 1'700'000'000.0, 17))) << tag;
    EXPECT_FALSE(saysNothing(versionOf(tag, -1.0, 17))) << tag;
    EXPECT_FALSE(saysNothing(versionOf(tag, 1'700'000'000.0, 0))) << tag;
    EXPECT_FALSE(saysNothing(versionOf(std::string("W/") + tag, std::nullopt, 0))) << tag;
  }
  for (const char* tag : {"new", "modified", "root"}) {
    EXPECT_FALSE(saysNothing(versionOf(tag, std::nullopt, 17))) << tag;
  }
  EXPECT_FALSE(saysNothing(versionOf("downloaded", std::nullopt, -5)));
  for (const char* tag : {"5f3-62", "newer", "New", "1", "new|0|0", "downloaded|0|7", "|", "a|b"}) {
    EXPECT_FALSE(saysNothing(versionOf(tag, std::nullopt, 0))) << tag;
  }
}

TEST(VersionRules, WhatAServerSendsIsAVersionWithoutQuotationMarks) {
  const std::string rest =
      "<D:getcontentlength>17</D:getcontentlength>"
      "<D:getlastmodified>Tue, 15 Nov 1994 08:12:31 GMT</D:getlastmodified>";
  const auto strong = listedVersion("<D:getetag>\"new\"</D:getetag>" + rest);
  EXPECT_EQ(strong, "new|784887151|17");
  EXPECT_FALSE(saysNothing(strong));
  const auto weak = listedVersion("<D:getetag>W/\"new\"</D:getetag>" + rest);
  EXPECT_EQ(weak, "W/new|784887151|17");
  EXPECT_EQ(lastingPart(weak), lastingPart(strong));
  // Without a tag the size stands in for it.
  EXPECT_EQ(listedVersion(rest), "17|784887151|17");
  EXPECT_EQ(listedVersion("<D:getetag>\"\"</D:getetag>"), "0|0|0");
  EXPECT_FALSE(saysNothing("0|0|0"));
}

TEST(VersionRules, OnlyTheStrengthOfATagDoesNotLast) {
  EXPECT_EQ(lastingPart(versionOf("W/a", 1.0, 1)), versionOf("a", 1.0, 1));
  EXPECT_EQ(lastingPart(versionOf("a", 1.0, 1)), versionOf("a", 1.0, 1));
  EXPECT_EQ(lastingPart(versionOf("W/W/a", 1.0, 1)), versionOf("W/a", 1.0, 1));
  EXPECT_NE(lastingPart(versionOf("W/a", 1.0, 1)), lastingPart(versionOf("b", 1.0, 1)));
  EXPECT_NE(lastingPart(versionOf("W/a", 1.0, 1)), lastingPart(versionOf("a", 2.0, 1)));
  EXPECT_NE(lastingPart(versionOf("W/a", 1.0, 1)), lastingPart(versionOf("a", 1.0, 2)));
  EXPECT_EQ(lastingPart("w/a|1|1"), "w/a|1|1");
  EXPECT_EQ(lastingPart(""), "");
}

TEST(VersionRules, TagsOfAnswersAreThoseOfVersions) {
  EXPECT_TRUE(hasTag(versionOf("a", 1.0, 1), "\"a\""));
  EXPECT_TRUE(hasTag(versionOf("W/a", 1.0, 1), "\"a\""));
  EXPECT_TRUE(hasTag(versionOf("a", 1.0, 1), "W/\"a\""));
  EXPECT_TRUE(hasTag(versionOf("a|b", 1.0, 1), "\"a|b\""));
  EXPECT_FALSE(hasTag(versionOf("a|b", 1.0, 1), "\"a\""));
  EXPECT_FALSE(hasTag(versionOf("a", 1.0, 1), "\"b\""));
  EXPECT_FALSE(hasTag("a", "\"a\""));
  EXPECT_FALSE(hasTag("", ""));
}

}  // namespace
}  // namespace kestrowan::host
