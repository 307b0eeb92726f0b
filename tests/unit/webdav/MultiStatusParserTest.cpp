#include "webdav/MultiStatusParser.h"

#include <gtest/gtest.h>

#include "platform/foundation/NSString.h"
#include "support/Cases.h"
#include "support/FakeSession.h"

namespace kestrowan {
namespace {

using test::multistatus;
using test::response;

std::vector<WebDAVEntry> parsed(std::string_view body, std::size_t pieceSize = std::string::npos) {
  MultiStatusParser parser;
  NSXMLParser xml(parser);
  while (!body.empty()) {
    const auto piece = body.substr(0, pieceSize);
    xml.append(piece);
    body.remove_prefix(piece.size());
  }
  xml.finish();
  return parser.takeEntries();
}

JSONValue form(const WebDAVEntry& entry) {
  return JSONValue::Object{
      {"path", entry.path},
      {"name", entry.name},
      {"isDir", entry.isDir},
      {"size", entry.size},
      {"etag", entry.etag},
      {"modified",
       entry.modified ? JSONValue(entry.modified->timeIntervalSince1970) : JSONValue()}};
}

JSONValue forms(const std::vector<WebDAVEntry>& entries) {
  JSONValue::Array array;
  for (const auto& entry : entries) array.push_back(form(entry));
  return array;
}

JSONValue paths(const std::vector<WebDAVEntry>& entries) {
  JSONValue::Array array;
  for (const auto& entry : entries) array.emplace_back(entry.path);
  return array;
}

const test::KnownDifferences kDifferences = {
    {"multistatus-xml-030", "a reference to an external entity yields no characters and goes on"},
    {"multistatus-xml-034", "references to declared entities are never expanded, so nothing ends"}};

TEST(MultiStatusParser, ParsesEveryKnownBody) {
  test::checkCases(
      "multistatus-xml", "parse_multistatus",
      [](const test::Case& one) { return forms(parsed(one.bytes)); }, kDifferences);
}

TEST(MultiStatusParser, ParsesEveryKnownBodyInPiecesOfOneByteAlike) {
  test::checkCases(
      "multistatus-xml", "parse_multistatus",
      [](const test::Case& one) { return forms(parsed(one.bytes, 1)); }, kDifferences);
}

TEST(MultiStatusParser, HasNoLimitOnResponses) {
  test::checkCases("multistatus-xml", "parse_multistatus_count", [](const test::Case& one) {
    return JSONValue(static_cast<std::int64_t>(parsed(one.bytes).size()));
  });
}

TEST(MultiStatusParser, HasNoLimitOnDepth) {
  test::checkCases("multistatus-xml", "parse_multistatus_nested",
                   [](const test::Case& one) { return paths(parsed(one.bytes)); });
}

TEST(MultiStatusParser, ReadsEveryKnownHref) {
  test::checkCases("percent-decode", "href_to_path_and_name", [](const test::Case& one) {
    std::string escaped;
    for (const char character : one.bytes) {
      escaped += character == '&' ? "&amp;" : character == '<' ? "&lt;" : std::string(1, character);
    }
    const auto entries = parsed(multistatus(response(escaped)));
    if (entries.empty()) return JSONValue();
    return JSONValue(
        JSONValue::Object{{"path", entries.front().path}, {"name", entries.front().name}});
  });
}

TEST(MultiStatusParser, ReadsEveryKnownLength) {
  test::checkCases("int64-text", "getcontentlength_text", [](const test::Case& one) {
    const auto entries = parsed(
        multistatus(response("/a", "<D:getcontentlength>" + one.bytes + "</D:getcontentlength>")));
    return JSONValue(entries.at(0).size);
  });
}

TEST(MultiStatusParser, FolderAndFileComeInDocumentOrder) {
  const auto entries = parsed(multistatus(
      response("/Home/Docs/", "<D:resourcetype><D:collection/></D:resourcetype>") +
      response("/Home/Docs/a%20b.txt",
               "<D:getcontentlength>12</D:getcontentlength><D:getetag>\"abc\"</D:getetag>"
               "<D:getlastmodified>Tue, 15 Nov 1994 08:12:31 GMT</D:getlastmodified>")));
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0], (WebDAVEntry{"/Home/Docs", "Docs", true, 0, "0", std::nullopt}));
  EXPECT_EQ(entries[1],
            (WebDAVEntry{"/Home/Docs/a b.txt", "a b.txt", false, 12, "abc", NSDate{784887151}}));
}

TEST(MultiStatusParser, TheSizeStandsInForAMissingEntityTag) {
  const auto entries =
      parsed(multistatus(response("/a", "<D:getcontentlength>512</D:getcontentlength>") +
                         response("/b") + response("/c", "<D:getetag>\"\"</D:getetag>")));
  EXPECT_EQ(entries.at(0).etag, "512");
  EXPECT_EQ(entries.at(1).etag, "0");
  EXPECT_EQ(entries.at(2).etag, "0");
}

TEST(MultiStatusParser, WeakEntityTagsKeepTheirPrefixAndLoseEveryQuote) {
  const auto entries = parsed(multistatus(response("/a", "<D:getetag>W/\"x1\"</D:getetag>") +
                                          response("/b", "<D:getetag>\"a\"b\"</D:getetag>")));
  EXPECT_EQ(entries.at(0).etag, "W/x1");
  EXPECT_EQ(entries.at(1).etag, "ab");
}

TEST(MultiStatusParser, UnreadableDatesAreAbsentAndReplaceEarlierOnes) {
  const std::string good = "<D:getlastmodified>Tue, 15 Nov 1994 08:12:31 GMT</D:getlastmodified>";
  for (const std::string bad : {"1994-11-15T08:12:31Z", "yesterday", ""}) {
    const auto entries = parsed(
        multistatus(response("/a", good + "<D:getlastmodified>" + bad + "</D:getlastmodified>")));
    EXPECT_EQ(entries.at(0).modified, std::nullopt) << bad;
  }
}

TEST(MultiStatusParser, NamesMatchWhateverTheirCaseAndNamespace) {
  const auto entries = parsed(
      "<x:MultiStatus xmlns:x=\"urn:other\"><x:Response><x:HREF>/a</x:HREF>"
      "<x:GetContentLength>3</x:GetContentLength><x:COLLECTION/></x:Response></x:MultiStatus>");
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0], (WebDAVEntry{"/a", "a", true, 3, "3", std::nullopt}));
}

TEST(MultiStatusParser, AResponseWithoutAnHrefGivesNoEntry) {
  EXPECT_TRUE(parsed(multistatus(response("") + response("  \n "))).empty());
  EXPECT_TRUE(parsed(multistatus("<D:response><D:status/></D:response>")).empty());
}

TEST(MultiStatusParser, TheRootIsNamedSlash) {
  const auto entries = parsed(multistatus(response("/") + response("///")));
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].name, "/");
  EXPECT_EQ(entries[1].path, "/");
}

TEST(MultiStatusParser, TruncatedBodyKeepsFinishedResponses) {
  const auto whole = multistatus(response("/a") + response("/b"));
  const auto cut = whole.substr(0, whole.rfind("</D:response>"));
  const auto entries = parsed(cut);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].path, "/a");
}

TEST(MultiStatusParser, AnHrefInCDATACountsAsEmpty) {
  EXPECT_TRUE(parsed(multistatus(response("<![CDATA[/a]]>"))).empty());
}

TEST(MultiStatusParser, ALaterHrefInTheResponseReplacesTheEarlier) {
  const auto entries = parsed(multistatus(
      response("/a", "<D:lockdiscovery><D:href>opaquelocktoken:1</D:href></D:lockdiscovery>")));
  EXPECT_EQ(entries.at(0).path, "opaquelocktoken:1");
}

TEST(MultiStatusParser, AnHrefOutsideAResponseIsIgnored) {
  EXPECT_TRUE(parsed("<D:error xmlns:D=\"DAV:\"><D:href>/a</D:href></D:error>").empty());
}

TEST(MultiStatusParser, PropertiesOutsideAResponseCountUntilTheNextOneStarts) {
  // A nested response ends twice: what came after the inner end still belongs to the outer.
  const auto entries = parsed(
      multistatus("<D:response><D:href>/a</D:href><D:response><D:href>/b</D:href></D:response>"
                  "<D:collection/><D:getcontentlength>5</D:getcontentlength></D:response>"));
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0], (WebDAVEntry{"/b", "b", false, 0, "0", std::nullopt}));
  EXPECT_EQ(entries[1], (WebDAVEntry{"/b", "b", true, 5, "5", std::nullopt}));
}

TEST(MultiStatusParser, AnEmptyPropertyInALaterPropstatOverwrites) {
  const auto entries = parsed(
      multistatus(response("/a",
                           "<D:getcontentlength>5</D:getcontentlength><D:getetag>\"x\"</D:getetag>"
                           "<D:getcontentlength/><D:getetag/>")));
  EXPECT_EQ(entries.at(0), (WebDAVEntry{"/a", "a", false, 0, "0", std::nullopt}));
}

TEST(MultiStatusParser, TheTextOfAnElementBeginsAfterItsLastChild) {
  const auto entries = parsed(multistatus("<D:response><D:href>/a<D:x/>/b</D:href></D:response>"));
  EXPECT_EQ(entries.at(0).path, "/b");
}

TEST(MultiStatusParser, MalformedEscapesLeaveTheWholeHrefAsItIs) {
  const auto entries = parsed(multistatus(response("/a%20b%zz/")));
  EXPECT_EQ(entries.at(0).path, "/a%20b%zz");
}

TEST(MultiStatusParser, BodiesThatAreNoXMLGiveNothing) {
  for (const std::string body : {"", "x", "<html><p>login</html>", "\0\0\0\0", "{}"}) {
    EXPECT_TRUE(parsed(body).empty()) << body;
  }
}

}  // namespace
}  // namespace kestrowan
