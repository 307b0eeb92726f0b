// XML: the same events come however the body is cut, and ends never outnumber starts.

#include <string>

#include "fuzz/FuzzTarget.h"
#include "platform/foundation/NSXMLParser.h"

using namespace kestrowan;

namespace {

class EventWriter : public NSXMLParserDelegate {
 public:
  void didStartElement(std::string_view elementName) override {
    ++depth;
    add('<', elementName);
  }
  void foundCharacters(std::string_view characters) override { events += characters; }
  void didEndElement(std::string_view elementName) override {
    fuzz::require(depth-- > 0, "an element ends after it has started");
    add('>', elementName);
  }

  std::string events;
  std::size_t markupEnd = 0;  // behind the last event that is not text
  int depth = 0;

 private:
  void add(char kind, std::string_view name) {
    events += '\0';
    events += kind;
    events.append(name) += '\0';
    markupEnd = events.size();
  }
};

struct Outcome {
  std::string events;
  bool wellFormed = false;
};

Outcome parsed(std::string_view body, std::size_t pieceSize) {
  EventWriter writer;
  NSXMLParser parser(writer);
  while (!body.empty()) {
    const auto piece = body.substr(0, pieceSize);
    parser.append(piece);
    body.remove_prefix(piece.size());
  }
  const bool wellFormed = parser.finish();
  fuzz::require(!wellFormed || writer.depth == 0, "every element ends");
  // How much of the text right before an error has come depends on the pieces.
  if (!wellFormed) writer.events.resize(writer.markupEnd);
  return {std::move(writer.events), wellFormed};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  // The first byte is the size of the pieces.
  const std::size_t pieceSize = data[0] % 64 + 1;
  const auto body = fuzz::text(data + 1, size - 1);
  const auto whole = parsed(body, body.size() + 1);
  const auto inPieces = parsed(body, pieceSize);
  fuzz::require(whole.wellFormed == inPieces.wellFormed, "pieces do not change the verdict");
  fuzz::require(whole.events == inPieces.events, "pieces do not change the events");
  return 0;
}
