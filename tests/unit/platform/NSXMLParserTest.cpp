#include "platform/foundation/NSXMLParser.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "platform/foundation/NSError.h"
#include "support/Cases.h"

namespace kestrowan {
namespace {

/// Writes the events down: "<a" for a start, ">a" for an end, and the text between, joined.
class EventWriter : public NSXMLParserDelegate {
 public:
  void didStartElement(std::string_view elementName) override { add("<", elementName); }
  void foundCharacters(std::string_view characters) override {
    if (!inText_) events += "'";
    inText_ = true;
    events += characters;
  }
  void didEndElement(std::string_view elementName) override { add(">", elementName); }

  std::string events;

 private:
  void add(std::string_view kind, std::string_view name) {
    if (inText_) events += "'";
    inText_ = false;
    events.append(kind).append(name).append(" ");
  }
  bool inText_ = false;
};

struct Outcome {
  std::string events;
  bool wellFormed;
  friend bool operator==(const Outcome&, const Outcome&) = default;
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
  return out << outcome.events << (outcome.wellFormed ? "ok" : "error");
}

Outcome parsedInPieces(std::string_view body, std::size_t pieceSize) {
  EventWriter writer;
  NSXMLParser parser(writer);
  bool wellFormed = true;
  for (std::size_t at = 0; at < body.size(); at += pieceSize) {
    wellFormed = parser.append(body.substr(at, pieceSize)) && wellFormed;
  }
  wellFormed = parser.finish() && wellFormed;
  return {writer.events, wellFormed};
}

Outcome parsed(std::string_view body) {
  return parsedInPieces(body, body.size() + 1);
}

Outcome ok(std::string events) {
  return {std::move(events), true};
}
Outcome error(std::string events) {
  return {std::move(events), false};
}

TEST(NSXMLParserTest, EventsComeInDocumentOrder) {
  EXPECT_EQ(parsed("<a>x<b/>y<c>z</c></a>"), ok("<a 'x'<b >b 'y'<c 'z'>c >a "));
}

TEST(NSXMLParserTest, NamesAreLocalNames) {
  const auto expected = ok("<a <b >b >a ");
  EXPECT_EQ(parsed("<D:a xmlns:D='DAV:'><D:b/></D:a>"), expected);
  EXPECT_EQ(parsed("<a xmlns='DAV:'><b/></a>"), expected);
  EXPECT_EQ(parsed("<a><b/></a>"), expected);
  EXPECT_EQ(parsed("<x:a xmlns:x='other'><y:b xmlns:y='another'/></x:a>"), expected);
}

TEST(NSXMLParserTest, UndeclaredPrefixDoesNotEndTheParse) {
  EXPECT_EQ(parsed("<D:a><E:b>x</E:b></D:a>"), ok("<a <b 'x'>b >a "));
}

TEST(NSXMLParserTest, OnlyTheFirstColonEndsAPrefix) {
  EXPECT_EQ(parsed("<a:b:c/>"), ok("<b:c >b:c "));
}

TEST(NSXMLParserTest, EndTagMustHaveTheSamePrefix) {
  EXPECT_EQ(parsed("<x:a></y:a>"), error("<a "));
}

TEST(NSXMLParserTest, CDATAIsDropped) {
  EXPECT_EQ(parsed("<a>x<![CDATA[<b>&amp;]]>y</a>"), ok("<a 'xy'>a "));
  EXPECT_EQ(parsed("<a><![CDATA[all]]></a>"), ok("<a >a "));
  EXPECT_EQ(parsed("<a><![CDATA[]]>t</a>"), ok("<a 't'>a "));
}

TEST(NSXMLParserTest, CommentsAndInstructionsInTextGiveNoEvents) {
  EXPECT_EQ(parsed("<?x y?><a>x<!-- c -->y<?p i?>z</a><!-- c -->"), ok("<a 'xyz'>a "));
}

TEST(NSXMLParserTest, PredefinedEntitiesAndNumbersAreCharacters) {
  EXPECT_EQ(parsed("<a>&amp;&lt;&gt;&quot;&apos;&#65;&#x1F600;</a>"),
            ok("<a '&<>\"'A\xF0\x9F\x98\x80'>a "));
}

TEST(NSXMLParserTest, OwnEntitiesGiveNoCharactersAndNoError) {
  EXPECT_EQ(parsed("<!DOCTYPE a [<!ENTITY e 'text'>]><a>x&e;y</a>"), ok("<a 'xy'>a "));
  EXPECT_EQ(parsed("<!DOCTYPE a [<!ENTITY e '<b/>'>]><a>&e;</a>"), ok("<a >a "));
}

TEST(NSXMLParserTest, UndefinedEntityIsAnError) {
  EXPECT_EQ(parsed("<a>x&nbsp;y</a>"), error("<a 'x"));
  EXPECT_EQ(parsed("<!DOCTYPE a [<!ENTITY e 'x'>]><a>&f;</a>"), error("<a "));
}

TEST(NSXMLParserTest, ExternalEntitiesAreNeverLoaded) {
  EXPECT_EQ(parsed("<!DOCTYPE a [<!ENTITY e SYSTEM 'file:///etc/hostname'>]><a>x&e;y</a>"),
            ok("<a 'xy'>a "));
  EXPECT_EQ(parsed("<!DOCTYPE a SYSTEM 'file:///dev/zero'><a>x</a>"), ok("<a 'x'>a "));
  EXPECT_EQ(parsed("<!DOCTYPE a [<!ENTITY % p SYSTEM 'file:///dev/zero'> %p;]><a>x</a>"),
            ok("<a 'x'>a "));
}

/// Ten times ten times … the same text.
std::string bombDeclarations() {
  std::string declarations = "<!ENTITY e0 'boom'>";
  for (int level = 1; level < 30; ++level) {
    declarations += "<!ENTITY e" + std::to_string(level) + " '";
    for (int i = 0; i < 10; ++i) declarations += "&e" + std::to_string(level - 1) + ";";
    declarations += "'>";
  }
  return "<!DOCTYPE a [" + declarations + "]>";
}

TEST(NSXMLParserTest, EntityBombsAreNotLit) {
  EXPECT_EQ(parsed(bombDeclarations() + "<a><b/>&e29;</a>"), ok("<a <b >b >a "));
  EXPECT_EQ(parsed(bombDeclarations() + "<a><b/><c d='&e29;'/></a>"), ok("<a <b >b <c >c >a "));
  EXPECT_EQ(parsed("<!DOCTYPE a [<!ENTITY e '&e;'>]><a>x&e;<b c='&e;'/></a>"),
            ok("<a 'x'<b >b >a "));
}

TEST(NSXMLParserTest, ParameterEntitiesAreNotExpanded) {
  EXPECT_EQ(parsed("<!DOCTYPE a [<!ENTITY % p '<!ENTITY e \"x\">'> %p; %p;]><a>x</a>"),
            ok("<a 'x'>a "));
}

TEST(NSXMLParserTest, ParseStopsAtTheFirstError) {
  for (const auto* rest : {"</b>", "&", "& ", "<", "< c>", "<c d=e/>", "<c d='1' d='2'/>", "\x01",
                           "&#0;", "&#xD800;", "&#xFFFF;", "]]>", "<!-- -- -->", "\xFF", "\xC0\xAF",
                           "<?xml version='1.0'?>", "<c d='<'/>"}) {
    const auto body = std::string("<a><b>t</b>") + rest + "<after/></a>";
    EXPECT_EQ(parsed(body), error("<a <b 't'>b ")) << rest;
  }
}

TEST(NSXMLParserTest, NothingButTheRootIsADocument) {
  EXPECT_EQ(parsed("<a/><b/>"), error("<a >a "));
  EXPECT_EQ(parsed("<a/>text"), error("<a >a "));
  EXPECT_EQ(parsed(std::string("<a/>\0", 5)), error("<a >a "));
  EXPECT_EQ(parsed("<a/> \r\n\t"), ok("<a >a "));
  EXPECT_EQ(parsed(""), error(""));
  EXPECT_EQ(parsed(" "), error(""));
  EXPECT_EQ(parsed("text"), error(""));
  EXPECT_EQ(parsed("{}"), error(""));
  EXPECT_EQ(parsed("\n<?xml version='1.0'?><a/>"), error(""));
}

TEST(NSXMLParserTest, TruncatedBodyKeepsItsEvents) {
  for (const std::string cut : {"<c>yy", "<c>y", "<c>", "<c", "<"}) {
    const auto outcome = parsed("<a><b>x</b>" + cut);
    EXPECT_FALSE(outcome.wellFormed) << cut;
    EXPECT_TRUE(outcome.events.starts_with("<a <b 'x'>b ")) << outcome.events;
    EXPECT_EQ(outcome.events.find(">c"), std::string::npos) << outcome.events;
  }
}

TEST(NSXMLParserTest, PiecesAreIgnoredAfterAnError) {
  EventWriter writer;
  NSXMLParser parser(writer);
  EXPECT_TRUE(parser.append("<a>"));
  EXPECT_FALSE(parser.append("</b>"));
  EXPECT_FALSE(parser.append("<c/></a>"));
  EXPECT_FALSE(parser.finish());
  EXPECT_EQ(writer.events, "<a ");
}

TEST(NSXMLParserTest, PiecesOfAnySizeGiveTheSameEvents) {
  const std::string body =
      "<?xml version='1.0' encoding='utf-8'?><D:a xmlns:D='DAV:'>x\xC3\xA9&amp;\r\n<D:b c='d'/>"
      "<![CDATA[z]]>\xF0\x9F\x98\x80</D:a>";
  const auto expected = ok("<a 'x\xC3\xA9&\n'<b >b '\xF0\x9F\x98\x80'>a ");
  for (std::size_t size = 1; size <= body.size(); ++size) {
    EXPECT_EQ(parsedInPieces(body, size), expected) << size;
  }
}

TEST(NSXMLParserTest, EmptyPiecesChangeNothing) {
  EventWriter writer;
  NSXMLParser parser(writer);
  EXPECT_TRUE(parser.append(""));
  EXPECT_TRUE(parser.append("<a/>"));
  EXPECT_TRUE(parser.append({}));
  EXPECT_TRUE(parser.finish());
  EXPECT_EQ(writer.events, "<a >a ");
}

/// Checks that no piece of text ends inside a character.
class PieceChecker : public NSXMLParserDelegate {
 public:
  void didStartElement(std::string_view) override {}
  void foundCharacters(std::string_view characters) override {
    EXPECT_EQ(characters.size() % 3, 0U);
    length += characters.size();
  }
  void didEndElement(std::string_view) override {}
  std::size_t length = 0;
};

TEST(NSXMLParserTest, CharactersAreNeverCut) {
  std::string text;
  for (int i = 0; i < 20'000; ++i) text += "\xE6\x97\xA5";
  const auto body = "<a>" + text + "</a>";
  for (const std::size_t size : {1UL, 2UL, 7UL, 1000UL, 4096UL}) {
    PieceChecker checker;
    NSXMLParser parser(checker);
    for (std::size_t at = 0; at < body.size(); at += size) {
      ASSERT_TRUE(parser.append(std::string_view(body).substr(at, size)));
    }
    EXPECT_TRUE(parser.finish());
    EXPECT_EQ(checker.length, text.size());
  }
}

TEST(NSXMLParserTest, LineEndsBecomeLineFeeds) {
  EXPECT_EQ(parsed("<a>x\r\ny\rz&#13;</a>"), ok("<a 'x\ny\nz\r'>a "));
}

std::string utf16(std::string_view text, bool bigEndian) {
  std::string wide;
  for (const char character : text) {
    if (bigEndian) wide += '\0';
    wide += character;
    if (!bigEndian) wide += '\0';
  }
  return wide;
}

TEST(NSXMLParserTest, EncodingsAreConvertedToUTF8) {
  const auto expected = ok("<a '\xC3\xA9'>a ");
  EXPECT_EQ(parsed("\xEF\xBB\xBF<a>\xC3\xA9</a>"), expected);
  EXPECT_EQ(parsed("<?xml version='1.0' encoding='ISO-8859-1'?><a>\xE9</a>"), expected);
  EXPECT_EQ(parsed("<?xml version='1.0' encoding='UTF-8'?><a>\xC3\xA9</a>"), expected);
  EXPECT_EQ(parsed("\xFF\xFE" + utf16("<a>\xE9</a>", false)), expected);
  EXPECT_EQ(parsed("\xFE\xFF" + utf16("<a>\xE9</a>", true)), expected);
  const std::string_view wide = "<?xml version='1.0' encoding='UTF-16'?><a>\xE9</a>";
  EXPECT_EQ(parsed(utf16(wide, true)), expected);
  EXPECT_EQ(parsed(utf16(wide, false)), expected);
  EXPECT_EQ(parsed("\xFE\xFF" + utf16(wide, true)), expected);
  EXPECT_EQ(parsed("<?xml version='1.0' encoding='US-ASCII'?><a>e</a>"), ok("<a 'e'>a "));
}

TEST(NSXMLParserTest, Windows1252IsKnown) {
  EXPECT_EQ(parsed("<?xml version='1.0' encoding='Windows-1252'?><a>\x80\xE9\x9F</a>"),
            ok("<a '\xE2\x82\xAC\xC3\xA9\xC5\xB8'>a "));
  EXPECT_EQ(parsed("<?xml version='1.0' encoding='windows-1252'?><a>\x81</a>"), error("<a "));
}

TEST(NSXMLParserTest, UnknownEncodingIsAnError) {
  EXPECT_EQ(parsed("<?xml version='1.0' encoding='klingon'?><a/>"), error(""));
}

TEST(NSXMLParserTest, EncodingsAreKnownByTheirOtherNamesToo) {
  const auto declared = [](const std::string& name, const std::string& text) {
    return "<?xml version='1.0' encoding='" + name + "'?><a>" + text + "</a>";
  };
  for (const auto* name : {"utf8", "UTF8"}) {
    EXPECT_EQ(parsed(declared(name, "\xC3\xA9")), ok("<a '\xC3\xA9'>a ")) << name;
  }
  for (const auto* name : {"latin1", "ISO8859-1", "iso_8859-1", "windows-1252", "CP1252"}) {
    EXPECT_EQ(parsed(declared(name, "\xE9")), ok("<a '\xC3\xA9'>a ")) << name;
  }
  EXPECT_EQ(parsed(declared("ISO-8859-15", "\xA4")), ok("<a '\xE2\x82\xAC'>a "));
  EXPECT_EQ(parsed(declared("ASCII", "e")), ok("<a 'e'>a "));
}

TEST(NSXMLParserTest, NamesOfTheFifthEditionAreNames) {
  // U+2C00, U+10000 and U+0220 were no letters when the fourth edition was written.
  for (const std::string name : {"\xE2\xB0\x80", "\xF0\x90\x80\x80", "\xC8\xA0"}) {
    EXPECT_EQ(parsed("<a><" + name + "/><b/></a>"), ok("<a <" + name + " >" + name + " <b >b >a "));
  }
}

TEST(NSXMLParserTest, DeepNestingIsRead) {
  std::string body;
  for (int i = 0; i < 100'000; ++i) body += "<x>";
  for (int i = 0; i < 100'000; ++i) body += "</x>";
  EXPECT_TRUE(parsed(body).wellFormed);
}

class Nobody : public NSXMLParserDelegate {
 public:
  void didStartElement(std::string_view) override {}
  void foundCharacters(std::string_view) override {}
  void didEndElement(std::string_view) override {}
};

/// Keeps elements as a list does: "r" is a record, "k" a text of it.
class Keeper : public EventWriter {
 public:
  Keeps keeps(std::string_view name) const override {
    return name == "r" ? Keeps::record : name == "k" ? Keeps::text : Keeps::nothing;
  }
};

struct KeptOutcome {
  std::string events;
  bool whole = false;
};

KeptOutcome kept(std::string_view body, std::size_t pieceSize = 1000) {
  Keeper keeper;
  NSXMLParser parser(keeper);
  for (std::size_t at = 0; at < body.size(); at += pieceSize) {
    parser.append(body.substr(at, pieceSize));
  }
  const bool whole = parser.finish();
  return {std::move(keeper.events), whole};
}

std::string elementWith(const std::string& name, std::size_t size) {
  return "<" + name + ">" + std::string(size, 't') + "</" + name + ">";
}

TEST(NSXMLParserTest, ALongTextThatIsKeptIsReadUpToItsLimit) {
  const std::string text(NSXMLParser::kLongestText, 't');
  const auto outcome = kept("<a><r><k>" + text + "</k></r></a>");
  EXPECT_TRUE(outcome.whole);
  EXPECT_EQ(outcome.events, "<a <r <k '" + text + "'>k >r >a ");
}

TEST(NSXMLParserTest, ARecordWithATooLongTextIsLeftOutAndTheBodyIsNotWhole) {
  const auto tooLong = elementWith("k", NSXMLParser::kLongestText + 1);
  for (const auto& body :
       {"<a><r>1</r><r><b><k/>" + tooLong + "<k>2</k></b><r/></r><r>3</r></a>",
        "<a><r>1</r><r><b><k/><k>" + std::string(NSXMLParser::kLongestText + 1, 't') +
            "<![CDATA[x]]></k></b></r><r>3</r></a>"}) {
    const auto outcome = kept(body);
    EXPECT_FALSE(outcome.whole);
    EXPECT_TRUE(outcome.events.starts_with("<a <r '1'>r <r <b <k >k <k '"));
    EXPECT_TRUE(outcome.events.ends_with("'<r '3'>r >a ")) << outcome.events.substr(0, 50);
  }
}

TEST(NSXMLParserTest, ALongTextThatIsNotKeptIsCutAndTheBodyIsWhole) {
  const auto outcome = kept("<a><r>" + elementWith("x", 10'000'000) + "<k>1</k></r></a>");
  EXPECT_TRUE(outcome.whole);
  EXPECT_TRUE(outcome.events.ends_with("'>x <k '1'>k >r >a "));
  EXPECT_LE(outcome.events.size(), NSXMLParser::kLongestText + 100);
}

TEST(NSXMLParserTest, ATooLongTextOutsideOfAnyRecordIsLeftOutAlone) {
  const auto outcome =
      kept("<a>" + elementWith("k", NSXMLParser::kLongestText + 1) + "<k>1</k><r>2</r></a>");
  EXPECT_FALSE(outcome.whole);
  EXPECT_TRUE(outcome.events.ends_with("<k '1'>k <r '2'>r >a "));
}

/// Keeps without holding anything.
class Counter : public Nobody {
 public:
  Keeps keeps(std::string_view name) const override {
    return name == "r" ? Keeps::record : name == "k" ? Keeps::text : Keeps::nothing;
  }
};

TEST(NSXMLParserTest, MoreRecordsThanAreKeptOfABodyAreAnError) {
  Counter counter;
  NSXMLParser parser(counter);
  std::string piece;
  for (int i = 0; i < 1000; ++i) piece += "<r/>";
  parser.append("<a>");
  for (std::size_t i = 0; i < NSXMLParser::kMostRecords / 1000; ++i) {
    ASSERT_TRUE(parser.append(piece));
  }
  try {
    parser.append("<r/>");
    FAIL() << "no error";
  } catch (const NSError& error) {
    EXPECT_TRUE(error.is(NSURLErrorDomain, NSURLErrorDataLengthExceedsMaximum));
  }
  EXPECT_FALSE(parser.finish());
}

TEST(NSXMLParserTest, MoreTextThanIsKeptOfABodyIsAnError) {
  Counter counter;
  NSXMLParser parser(counter);
  const auto record = "<r>" + elementWith("k", NSXMLParser::kLongestText) + "</r>";
  parser.append("<a>");
  for (std::size_t i = 0; i < NSXMLParser::kMostText / NSXMLParser::kLongestText; ++i) {
    ASSERT_TRUE(parser.append(record));
  }
  EXPECT_THROW(parser.append(record), NSError);
}

TEST(NSXMLParserTest, MarkupWithoutAnEndIsAnError) {
  const std::string piece(10'000, 'x');
  for (const std::string begin : {"<b c='", "<b ", "<!-- ", "<?p ", "<", "<![CDATA["}) {
    Nobody nobody;
    NSXMLParser parser(nobody);
    EXPECT_TRUE(parser.append("<a>" + begin)) << begin;
    std::size_t pieces = 0;
    while (pieces < 1000 && parser.append(piece)) ++pieces;
    // Sections without an end are characters that are not delivered, and take no memory.
    if (begin != "<![CDATA[") {
      EXPECT_LT(pieces, 200u) << begin;
    }
    EXPECT_FALSE(parser.finish()) << begin;
  }
}

TEST(NSXMLParserTest, LongCommentsAreRead) {
  EXPECT_EQ(parsed("<a><!--" + std::string(500'000, 'x') + "--><b/></a>"), ok("<a <b >b >a "));
}

TEST(NSXMLParserTest, NestingThatOnlyTakesMemoryIsAnError) {
  Nobody nobody;
  NSXMLParser parser(nobody);
  std::string piece;
  for (int i = 0; i < 100'000; ++i) piece += "<x>";
  for (int million = 0; million < 10; ++million) EXPECT_TRUE(parser.append(piece));
  EXPECT_FALSE(parser.append("<x>"));
}

class Thrower : public NSXMLParserDelegate {
 public:
  void didStartElement(std::string_view) override {
    ++calls;
    throw std::runtime_error("no");
  }
  void foundCharacters(std::string_view) override { ++calls; }
  void didEndElement(std::string_view) override { ++calls; }
  int calls = 0;
};

TEST(NSXMLParserTest, WhatTheDelegateThrowsEndsTheParse) {
  Thrower thrower;
  NSXMLParser parser(thrower);
  EXPECT_THROW(parser.append("<a/><b>x</b>"), std::runtime_error);
  EXPECT_FALSE(parser.append("<c/>"));
  EXPECT_FALSE(parser.finish());
  EXPECT_EQ(thrower.calls, 1);
}

}  // namespace
}  // namespace kestrowan
