// Paths in URLs: encoding is reversible, and every path gives the URL that it should.

#include <string>

#include "fuzz/FuzzTarget.h"
#include "platform/foundation/NSString.h"
#include "platform/foundation/NSURLComponents.h"

using namespace kestrowan;

namespace {

void checkComponents(std::string_view path) {
  const auto last = lastPathComponent(path);
  const auto rest = stringByDeletingLastPathComponent(path);
  fuzz::require(last == "/" || last.find('/') == std::string::npos, "a component has no slash");
  fuzz::require(last.empty() == path.empty(), "only the empty path has no component");
  fuzz::require(rest.find("//") == std::string::npos, "runs of slashes are one");
  fuzz::require(last.ends_with(pathExtension(path)), "an extension ends its component");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto path = fuzz::text(data, size);
  const auto encoded = stringByAddingPathPercentEncoding(path);
  const auto decoded = stringByRemovingPercentEncoding(encoded);
  fuzz::require(decoded.has_value() == isValidUTF8(path), "text comes back, other bytes do not");
  fuzz::require(!decoded || *decoded == path, "an encoded path decodes to itself");

  const NSURLComponents components{"https", "127.0.0.1", 8443, std::string(path)};
  const auto url = components.url();
  fuzz::require(url.has_value() == (path.empty() || path.front() == '/'), "rooted paths have URLs");
  fuzz::require(!url || url->absoluteString() == "https://127.0.0.1:8443" + encoded,
                "a URL is its parts");

  if (const auto unescaped = stringByRemovingPercentEncoding(path)) {
    fuzz::require(isValidUTF8(*unescaped), "what is decoded is text");
  }
  checkComponents(path);
  return 0;
}
