// Multistatus bodies: the same entries come however the body is cut, each with a path and a tag.

#include "fuzz/FuzzTarget.h"
#include "platform/foundation/NSXMLParser.h"
#include "webdav/MultiStatusParser.h"

using namespace kestrowan;

namespace {

std::vector<WebDAVEntry> entriesOf(std::string_view body, std::size_t pieceSize) {
  MultiStatusParser entries;
  NSXMLParser parser(entries);
  while (!body.empty()) {
    const auto piece = body.substr(0, pieceSize);
    parser.append(piece);
    body.remove_prefix(piece.size());
  }
  parser.finish();
  return entries.takeEntries();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  // The first byte is the size of the pieces.
  const std::size_t pieceSize = data[0] % 64 + 1;
  const auto body = fuzz::text(data + 1, size - 1);
  const auto entries = entriesOf(body, body.size() + 1);
  for (const auto& entry : entries) {
    fuzz::require(!entry.path.empty(), "an entry has a path");
    fuzz::require(!entry.name.empty(), "an entry has a name");
    fuzz::require(!entry.etag.empty(), "an entry has a tag");
  }
  fuzz::require(entries == entriesOf(body, pieceSize), "pieces do not change the entries");
  return 0;
}
