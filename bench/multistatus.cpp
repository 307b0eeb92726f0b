// Parses one multistatus body as libxml2 alone would, with empty handlers, and as the client does,
// in turn, and prints the speeds, their ratio and the memory of the entries.
//
//   bench_multistatus [FILE]      a body made here of 50,000 entries when no file is named

#include <libxml/parser.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "webdav/MultiStatusParser.h"

namespace {

using kestrowan::MultiStatusParser;
using kestrowan::NSXMLParser;
using kestrowan::WebDAVEntry;

constexpr int kRounds = 15;
constexpr int kEntries = 50'000;
constexpr std::size_t kPiece = 64 * 1024;  // bytes, as the network hands them over

/// A body in the form of Apache's, about 740 bytes an entry.
std::string madeBody() {
  std::ostringstream body;
  body << "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<D:multistatus xmlns:D=\"DAV:\" "
          "xmlns:ns0=\"DAV:\">\n";
  for (int i = 0; i < kEntries; ++i) {
    body << "<D:response xmlns:lp1=\"DAV:\" xmlns:lp2=\"http://apache.org/dav/props/\">\n<D:href>"
            "/Home/Big/file-"
         << i
         << "%20name.txt</D:href>\n<D:propstat>\n<D:prop>\n<lp1:resourcetype/>\n"
            "<lp1:creationdate>2026-01-31T12:00:00Z</lp1:creationdate>\n<lp1:getcontentlength>"
         << i
         << "</lp1:getcontentlength>\n<lp1:getlastmodified>Sat, 31 Jan 2026 12:00:00 "
            "GMT</lp1:getlastmodified>\n<lp1:getetag>\"1000-64a"
         << i
         << "\"</lp1:getetag>\n<lp2:executable>F</lp2:executable>\n<D:supportedlock>\n"
            "<D:lockentry>\n<D:lockscope><D:exclusive/></D:lockscope>\n<D:locktype><D:write/>"
            "</D:locktype>\n</D:lockentry>\n<D:lockentry>\n<D:lockscope><D:shared/>"
            "</D:lockscope>\n<D:locktype><D:write/></D:locktype>\n</D:lockentry>\n"
            "</D:supportedlock>\n<D:lockdiscovery/>\n<D:getcontenttype>text/plain"
            "</D:getcontenttype>\n</D:prop>\n<D:status>HTTP/1.1 200 OK</D:status>\n"
            "</D:propstat>\n</D:response>\n";
  }
  body << "</D:multistatus>\n";
  return body.str();
}

template <typename Parse>
double seconds(Parse parse) {
  const auto start = std::chrono::steady_clock::now();
  parse();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void parseWithLibraryAlone(const std::string& body) {
  xmlSAXHandler handlers = {};
  handlers.initialized = 1;
  handlers.startElement = [](void*, const xmlChar*, const xmlChar**) {};
  handlers.endElement = [](void*, const xmlChar*) {};
  handlers.characters = [](void*, const xmlChar*, int) {};
  handlers.ignorableWhitespace = handlers.characters;
  xmlParserCtxtPtr parser = xmlCreatePushParserCtxt(&handlers, nullptr, nullptr, 0, nullptr);
  for (std::size_t at = 0; at < body.size(); at += kPiece) {
    const auto length = static_cast<int>(std::min(kPiece, body.size() - at));
    if (xmlParseChunk(parser, body.data() + at, length, 0) != XML_ERR_OK) break;
  }
  xmlParseChunk(parser, nullptr, 0, 1);
  xmlFreeParserCtxt(parser);
}

std::vector<WebDAVEntry> parseAsTheClient(const std::string& body) {
  MultiStatusParser parser;
  NSXMLParser xml(parser);
  for (std::size_t at = 0; at < body.size(); at += kPiece) {
    xml.append(std::string_view(body).substr(at, kPiece));
  }
  xml.finish();
  return parser.takeEntries();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void report(const char* what, const std::vector<double>& times, double megabytes) {
  const auto [best, worst] = std::minmax_element(times.begin(), times.end());
  std::printf("%-14s median %.4f s (%.4f to %.4f), %.0f MB/s\n", what, median(times), *best, *worst,
              megabytes / median(times));
}

}  // namespace

int main(int argc, char** argv) {
  std::string body;
  if (argc > 1) {
    std::ifstream file(argv[1], std::ios::binary);
    if (!file) {
      std::fprintf(stderr, "%s cannot be read\n", argv[1]);
      return 1;
    }
    body.assign(std::istreambuf_iterator<char>(file), {});
  } else {
    body = madeBody();
  }
  const double megabytes = static_cast<double>(body.size()) / 1e6;

  std::vector<double> alone;
  std::vector<double> client;
  for (int round = 0; round < kRounds; ++round) {
    alone.push_back(seconds([&] { parseWithLibraryAlone(body); }));
    client.push_back(seconds([&] { parseAsTheClient(body); }));
  }

  const auto before = mallinfo2().uordblks + mallinfo2().hblkhd;
  const auto entries = parseAsTheClient(body);
  const auto after = mallinfo2().uordblks + mallinfo2().hblkhd;
  std::size_t texts = 0;
  for (const auto& entry : entries) {
    texts += entry.path.size() + entry.name.size() + entry.etag.size();
  }

  std::printf("%zu entries, %.1f MB, %d rounds in turn\n", entries.size(), megabytes, kRounds);
  report("libxml2 alone", alone, megabytes);
  report("client", client, megabytes);
  std::printf("ratio of speeds: %.2f\n", median(alone) / median(client));
  if (!entries.empty()) {
    std::printf("memory: %zu bytes an entry beyond its texts\n",
                (after - before - std::min(texts, after - before)) / entries.size());
  }
}
