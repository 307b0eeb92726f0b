#include "platform/foundation/NSURLComponents.h"

namespace kestrowan {

namespace {

constexpr std::string_view kAllowedInPath =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789!$&'()*+,-./:=@_~";

}  // namespace

std::string stringByAddingPathPercentEncoding(std::string_view path) {
  constexpr std::string_view kHex = "0123456789ABCDEF";
  std::string encoded;
  encoded.reserve(path.size());
  for (const char character : path) {
    if (kAllowedInPath.find(character) != std::string_view::npos) {
      encoded += character;
    } else {
      const auto byte = static_cast<unsigned char>(character);
      encoded += '%';
      encoded += kHex[byte >> 4];
      encoded += kHex[byte & 15];
    }
  }
  return encoded;
}

std::optional<NSURL> NSURLComponents::url() const {
  const bool hasAuthority = !host.empty() || port;
  if (hasAuthority && !path.empty() && path.front() != '/') return std::nullopt;
  std::string text;
  if (!scheme.empty()) text += scheme + ":";
  if (hasAuthority) text += "//" + host;
  if (port) text += ":" + std::to_string(*port);
  return NSURL::URLWithString(text + stringByAddingPathPercentEncoding(path));
}

}  // namespace kestrowan
