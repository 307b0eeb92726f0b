#include <libxml/SAX2.h>
#include <libxml/entities.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/xmlerror.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <mutex>
#include <utility>

#include "platform/base/Fatal.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSXMLParser.h"
#include "platform/network/ReceivedBody.h"

namespace kestrowan {

namespace {

using Keeps = NSXMLParserDelegate::Keeps;

/// Elements within each other: each one takes some fifty bytes until it ends.
constexpr std::size_t kDeepest = 1'000'000;
/// Bytes that the library gets at once, so that what it has not understood yet is looked at often.
constexpr std::size_t kPiece = std::size_t{16} << 10;
/// Bytes of markup without an end. The library compares each attribute of a tag with all others.
constexpr std::size_t kLongestTag = std::size_t{64} << 10;
constexpr std::size_t kLongestMarkup = std::size_t{1} << 20;

const char* charactersOf(const xmlChar* text) {
  return reinterpret_cast<const char*>(text);
}

/// The name behind the prefix. A colon at either end is part of the name.
std::string_view localName(const xmlChar* name) {
  const std::string_view whole(charactersOf(name));
  const auto colon = whole.find(':');
  const bool divides = colon != std::string_view::npos && colon > 0 && colon + 1 < whole.size();
  return divides ? whole.substr(colon + 1) : whole;
}

void ignoreMessage(void*, const char*, ...) noexcept {}

NSError tooMuch(const char* what) {
  return NSError(NSURLErrorDomain, NSURLErrorDataLengthExceedsMaximum,
                 {{"NSUnderlyingError", what}});
}

}  // namespace

struct NSXMLParser::Engine {
  explicit Engine(NSXMLParserDelegate& theDelegate) : delegate(theDelegate) {
    static std::once_flag once;
    std::call_once(once, xmlInitParser);
    auto handlers = saxHandlers();
    context = xmlCreatePushParserCtxt(&handlers, this, nullptr, 0, nullptr);
    if (!context) fatalError("no memory for an XML parser");
    xmlCtxtUseOptions(context, XML_PARSE_NOENT | XML_PARSE_NONET);
    emptyEntity.etype = XML_INTERNAL_PREDEFINED_ENTITY;
    emptyEntity.type = XML_ENTITY_DECL;
    emptyEntity.name = emptyText;
    emptyEntity.content = emptyText;
    // Else the library would keep a declaration's text there.
    emptyEntity.orig = emptyText;
  }
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;
  ~Engine() {
    if (context->myDoc) xmlFreeDoc(context->myDoc);
    xmlFreeParserCtxt(context);
  }

  bool parse(std::string_view bytes, bool isLast) {
    if (failed) return false;
    // The library writes some errors of conversion on standard error else; one setting a thread.
    xmlSetGenericErrorFunc(nullptr, ignoreMessage);
    xmlParseChunk(context, bytes.data(), static_cast<int>(bytes.size()), isLast ? 1 : 0);
    failed = context->wellFormed == 0 || context->disableSAX != 0 || hasEndlessMarkup();
    if (thrown) std::rethrow_exception(std::exchange(thrown, nullptr));
    return !failed;
  }

  /// Whether the library waits for the end of a tag, comment or declaration that is too long.
  bool hasEndlessMarkup() const {
    const auto waiting = static_cast<std::size_t>(context->input->end - context->input->cur);
    return waiting > (context->instate == XML_PARSER_START_TAG ? kLongestTag : kLongestMarkup);
  }

  void stop() noexcept {
    stopped = true;
    xmlStopParser(context);
  }

  /// What the call throws ends the parse and leaves `parse`, not the C library.
  template <typename Call>
  void tell(Call call) noexcept {
    if (stopped) return;
    try {
      call();
    } catch (...) {
      thrown = std::current_exception();
      stop();
    }
  }

  void start(std::string_view name) {
    if (++depth > kDeepest) return stop();
    textSize = 0;
    if (isLeavingOut) return;
    if (recordDepth == 0 && delegate.keeps(name) == Keeps::record) recordDepth = depth;
    delegate.didStartElement(name);
  }

  void end(std::string_view name) {
    if (!isLeavingOut) {
      const Keeps keeps = delegate.keeps(name);
      if (keeps == Keeps::text && textSize > kLongestText) {
        leftOut = true;
        isLeavingOut = true;
      } else {
        count(keeps);
        delegate.didEndElement(name);
      }
    }
    // Outside of any record nothing but the element itself is left out.
    if (depth == recordDepth || recordDepth == 0) {
      isLeavingOut = false;
      recordDepth = 0;
    }
    --depth;
  }

  void count(Keeps keeps) {
    if (keeps == Keeps::record && ++records > kMostRecords) {
      throw tooMuch("a list of more than 2,000,000 entries");
    }
    if (keeps != Keeps::text) return;
    keptText += textSize;
    if (keptText > kMostText) throw tooMuch("a list whose texts are longer than 1 GiB");
  }

  void text(std::string_view piece) {
    if (piece.empty() || isLeavingOut || textSize > kLongestText) return;
    textSize += piece.size();
    if (textSize <= kLongestText) delegate.foundCharacters(piece);
  }

  static Engine& from(void* userData) { return *static_cast<Engine*>(userData); }

  static void startElement(void* userData, const xmlChar* name, const xmlChar**) noexcept {
    from(userData).tell([&] { from(userData).start(localName(name)); });
  }
  static void endElement(void* userData, const xmlChar* name) noexcept {
    from(userData).tell([&] { from(userData).end(localName(name)); });
  }
  static void characters(void* userData, const xmlChar* text, int length) noexcept {
    const std::string_view piece(charactersOf(text), static_cast<std::size_t>(length));
    from(userData).tell([&] { from(userData).text(piece); });
  }
  // Without a handler a section's text would come as characters.
  static void ignoreCdata(void*, const xmlChar*, int) noexcept {}

  /// An entity that the body has declared is one without characters; so nothing is ever expanded
  /// or loaded. Null for an undeclared one, which is an error.
  static xmlEntityPtr entity(void* userData, const xmlChar* name) noexcept {
    Engine& engine = from(userData);
    const xmlDocPtr declarations = engine.context->myDoc;
    const bool declared = declarations && xmlGetDocEntity(declarations, name);
    return declared ? &engine.emptyEntity : nullptr;
  }

  /// Parameter entities are not looked into, as though each were declared elsewhere.
  static xmlEntityPtr parameterEntity(void* userData, const xmlChar*) noexcept {
    from(userData).context->hasPErefs = 1;
    return nullptr;
  }

  /// The first version's handlers, which get qualified names. With the second's the library looks
  /// each prefix up among all in scope, and adds attributes that the body declares.
  static xmlSAXHandler saxHandlers() {
    xmlSAXHandler handlers = {};
    handlers.initialized = 1;
    handlers.startElement = startElement;
    handlers.endElement = endElement;
    handlers.characters = characters;
    handlers.ignorableWhitespace = characters;
    handlers.cdataBlock = ignoreCdata;
    handlers.getEntity = entity;
    handlers.getParameterEntity = parameterEntity;
    handlers.error = ignoreMessage;
    handlers.warning = ignoreMessage;
    return handlers;
  }

  NSXMLParserDelegate& delegate;
  /// Null when what is parsed is no answer's body.
  std::shared_ptr<ReceivedBody> body;
  xmlParserCtxtPtr context = nullptr;
  bool failed = false;
  bool stopped = false;
  std::exception_ptr thrown;

  std::size_t depth = 0;
  /// Of the outermost record; 0 outside of any.
  std::size_t recordDepth = 0;
  std::size_t textSize = 0;  // bytes since the last start tag
  std::size_t records = 0;
  std::size_t keptText = 0;
  /// The rest of the record gives no events.
  bool isLeavingOut = false;
  bool leftOut = false;

  xmlChar emptyText[1] = {};
  xmlEntity emptyEntity = {};
};

NSXMLParser::NSXMLParser(NSXMLParserDelegate& delegate)
    : engine_(std::make_unique<Engine>(delegate)) {}

NSXMLParser::~NSXMLParser() = default;

bool NSXMLParser::append(std::string_view bytes) {
  if (!engine_->body) engine_->body = ReceivedBody::beingDelivered();
  bool isWellFormed = !engine_->failed;
  while (isWellFormed && !bytes.empty()) {
    isWellFormed = engine_->parse(bytes.substr(0, kPiece), false);
    bytes.remove_prefix(std::min(kPiece, bytes.size()));
  }
  return isWellFormed;
}

bool NSXMLParser::finish() {
  const bool isWhole = engine_->parse({}, true) && !engine_->leftOut;
  if (engine_->body) engine_->body->setWhole(isWhole);
  return isWhole;
}

}  // namespace kestrowan
