#include <expat.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <utility>

#include "platform/base/Fatal.h"
#include "platform/foundation/NSXMLParser.h"
#include "platform/linux/Windows1252.h"

namespace kestrowan {

namespace {

constexpr std::size_t kLargestPiece = std::numeric_limits<int>::max();
/// Elements within each other: each one takes a hundred bytes and more until it ends.
constexpr std::size_t kDeepest = 1'000'000;

/// The name behind the prefix. The library's own namespace processing would end the parse at an
/// undeclared prefix.
std::string_view localName(const char* name) {
  const char* colon = std::strchr(name, ':');
  return colon ? colon + 1 : name;
}

int XMLCALL knowEncoding(void*, const char* name, XML_Encoding* encoding) noexcept {
  if (!isWindows1252(name)) return XML_STATUS_ERROR;
  std::copy_n(windows1252CodePoints().begin(), 256, encoding->map);
  encoding->data = nullptr;
  encoding->convert = nullptr;
  encoding->release = nullptr;
  return XML_STATUS_OK;
}

}  // namespace

struct NSXMLParser::Engine {
  NSXMLParserDelegate& delegate;
  XML_Parser parser;
  bool failed = false;
  std::size_t depth = 0;
  std::exception_ptr thrown;

  explicit Engine(NSXMLParserDelegate& theDelegate)
      : delegate(theDelegate), parser(XML_ParserCreate(nullptr)) {
    if (!parser) fatalError("no memory for an XML parser");
    XML_SetUserData(parser, this);
    XML_SetElementHandler(parser, startElement, endElement);
    XML_SetCharacterDataHandler(parser, characters);
    XML_SetCdataSectionHandler(parser, startCdata, endCdata);
    // With a handler for them, references to the body's own entities are skipped, not expanded.
    XML_SetDefaultHandler(parser, ignore);
    XML_SetUnknownEncodingHandler(parser, knowEncoding, nullptr);
  }
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;
  ~Engine() { XML_ParserFree(parser); }

  bool parse(std::string_view bytes, bool isLast) {
    if (failed) return false;
    const auto status =
        XML_Parse(parser, bytes.data(), static_cast<int>(bytes.size()), isLast ? 1 : 0);
    failed = status != XML_STATUS_OK;
    if (thrown) std::rethrow_exception(std::exchange(thrown, nullptr));
    return !failed;
  }

  /// Calls the delegate; what it throws ends the parse and leaves `parse`, not the C library.
  template <typename Call>
  void tell(Call call) noexcept {
    if (thrown) return;
    try {
      call(delegate);
    } catch (...) {
      thrown = std::current_exception();
      XML_StopParser(parser, XML_FALSE);
    }
  }

  static Engine& from(void* userData) { return *static_cast<Engine*>(userData); }

  static void XMLCALL startElement(void* userData, const char* name, const char**) noexcept {
    if (++from(userData).depth > kDeepest) {
      XML_StopParser(from(userData).parser, XML_FALSE);
      return;
    }
    from(userData).tell([name](auto& delegate) { delegate.didStartElement(localName(name)); });
  }
  static void XMLCALL endElement(void* userData, const char* name) noexcept {
    --from(userData).depth;
    from(userData).tell([name](auto& delegate) { delegate.didEndElement(localName(name)); });
  }
  static void XMLCALL characters(void* userData, const char* text, int length) noexcept {
    const std::string_view piece(text, static_cast<std::size_t>(length));
    from(userData).tell([piece](auto& delegate) { delegate.foundCharacters(piece); });
  }
  static void XMLCALL startCdata(void* userData) noexcept {
    XML_SetCharacterDataHandler(from(userData).parser, nullptr);
  }
  static void XMLCALL endCdata(void* userData) noexcept {
    XML_SetCharacterDataHandler(from(userData).parser, characters);
  }
  static void XMLCALL ignore(void*, const char*, int) noexcept {}
};

NSXMLParser::NSXMLParser(NSXMLParserDelegate& delegate)
    : engine_(std::make_unique<Engine>(delegate)) {}

NSXMLParser::~NSXMLParser() = default;

bool NSXMLParser::append(std::string_view bytes) {
  while (bytes.size() > kLargestPiece) {
    if (!engine_->parse(bytes.substr(0, kLargestPiece), false)) return false;
    bytes.remove_prefix(kLargestPiece);
  }
  return engine_->parse(bytes, false);
}

bool NSXMLParser::finish() {
  return engine_->parse({}, true);
}

}  // namespace kestrowan
