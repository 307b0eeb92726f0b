#include "webdav/MultiStatusParser.h"

#include <algorithm>
#include <array>

#include "platform/foundation/NSString.h"
#include "webdav/WebDAVClient.h"

namespace kestrowan {

namespace {

enum class Element { other, response, collection, href, contentLength, entityTag, lastModified };

struct KnownElement {
  std::string_view name;
  Element element;
};

constexpr std::array<KnownElement, 6> kKnownElements = {{
    {"response", Element::response},
    {"collection", Element::collection},
    {"href", Element::href},
    {"getcontentlength", Element::contentLength},
    {"getetag", Element::entityTag},
    {"getlastmodified", Element::lastModified},
}};

/// Whether `name`, in lower case, is `known`. No letter outside ASCII has one of the known names'
/// letters as its lower case except the Kelvin sign, and no known name holds a "k".
bool isInLowerCase(std::string_view name, std::string_view known) {
  return name.size() == known.size() &&
         std::equal(name.begin(), name.end(), known.begin(), [](char a, char b) {
           return (a >= 'A' && a <= 'Z' ? static_cast<char>(a + ('a' - 'A')) : a) == b;
         });
}

Element elementNamed(std::string_view name) {
  for (const auto& known : kKnownElements) {
    if (isInLowerCase(name, known.name)) return known.element;
  }
  return Element::other;
}

}  // namespace

const NSDateFormatter& MultiStatusParser::httpDate() {
  static const auto* formatter = new NSDateFormatter({.localeIdentifier = "en_US_POSIX",
                                                      .dateFormat = "EEE, dd MMM yyyy HH:mm:ss zzz",
                                                      .timeZoneIdentifier = "GMT"});
  return *formatter;
}

void MultiStatusParser::didStartElement(std::string_view elementName) {
  text_.clear();
  switch (elementNamed(elementName)) {
    case Element::response:
      beginResponse();
      break;
    case Element::collection:
      curIsDir_ = true;
      break;
    default:
      break;
  }
}

void MultiStatusParser::foundCharacters(std::string_view characters) {
  text_ += characters;
}

void MultiStatusParser::didEndElement(std::string_view elementName) {
  const Element element = elementNamed(elementName);
  if (element == Element::other) return;
  const std::string_view value = trimmingWhitespaceAndNewlines(text_);
  switch (element) {
    case Element::href:
      if (inResponse_) curHref_ = value;
      break;
    case Element::contentLength:
      curLen_ = int64FromText(value).value_or(0);
      break;
    case Element::entityTag:
      curEtag_ = value;
      std::erase(curEtag_, '"');
      break;
    case Element::lastModified:
      curModified_ = httpDate().date(value);
      break;
    case Element::response:
      endResponse();
      break;
    default:
      break;
  }
}

NSXMLParserDelegate::Keeps MultiStatusParser::keeps(std::string_view elementName) const {
  switch (elementNamed(elementName)) {
    case Element::response:
      return Keeps::record;
    case Element::href:
    case Element::contentLength:
    case Element::entityTag:
    case Element::lastModified:
      return Keeps::text;
    default:
      return Keeps::nothing;
  }
}

void MultiStatusParser::beginResponse() {
  inResponse_ = true;
  curHref_.clear();
  curIsDir_ = false;
  curLen_ = 0;
  curEtag_.clear();
  curModified_.reset();
}

void MultiStatusParser::endResponse() {
  inResponse_ = false;
  if (curHref_.empty()) return;
  WebDAVEntry entry;
  const auto decoded = stringByRemovingPercentEncoding(curHref_);
  entry.path = WebDAVClient::normalize(decoded ? *decoded : curHref_);
  entry.name = lastPathComponent(entry.path);
  if (entry.name.empty()) entry.name = "/";
  entry.isDir = curIsDir_;
  entry.size = curLen_;
  entry.etag = curEtag_.empty() ? std::to_string(curLen_) : curEtag_;
  entry.modified = curModified_;
  entries_.push_back(std::move(entry));
}

}  // namespace kestrowan
