#include "platform/foundation/NSString.h"

#include <charconv>

#include "platform/foundation/UTF8.h"

namespace kestrowan {

namespace {

constexpr std::string_view kWhitespaceAndNewlines[] = {
    "\t",           "\n",           "\v",           "\f",           "\r",           " ",
    "\xC2\x85",     "\xC2\xA0",     "\xE1\x9A\x80", "\xE2\x80\x80", "\xE2\x80\x81", "\xE2\x80\x82",
    "\xE2\x80\x83", "\xE2\x80\x84", "\xE2\x80\x85", "\xE2\x80\x86", "\xE2\x80\x87", "\xE2\x80\x88",
    "\xE2\x80\x89", "\xE2\x80\x8A", "\xE2\x80\x8B", "\xE2\x80\xA8", "\xE2\x80\xA9", "\xE2\x80\xAF",
    "\xE2\x81\x9F", "\xE3\x80\x80"};

/// A blank or one of the directional controls: what ends the hope for an extension.
constexpr std::string_view kNotInExtension[] = {" ",
                                                "\xD8\x9C",      // U+061C
                                                "\xE2\x80\x8E",  // U+200E
                                                "\xE2\x80\x8F",
                                                "\xE2\x80\xAA",  // U+202A
                                                "\xE2\x80\xAB",
                                                "\xE2\x80\xAC",
                                                "\xE2\x80\xAD",
                                                "\xE2\x80\xAE",
                                                "\xE2\x81\xA6",  // U+2066
                                                "\xE2\x81\xA7",
                                                "\xE2\x81\xA8",
                                                "\xE2\x81\xA9"};

constexpr char kLastPlainASCII = 0x7F;

bool isPlain(char character) {
  return character > ' ' && character <= kLastPlainASCII;
}

/// The length of the white space that `text` begins or ends with, 0 for none.
std::size_t leadingWhitespace(std::string_view text) {
  if (text.empty() || isPlain(text.front())) return 0;
  for (const auto space : kWhitespaceAndNewlines) {
    if (text.starts_with(space)) return space.size();
  }
  return 0;
}

std::size_t trailingWhitespace(std::string_view text) {
  if (text.empty() || isPlain(text.back())) return 0;
  for (const auto space : kWhitespaceAndNewlines) {
    if (text.ends_with(space)) return space.size();
  }
  return 0;
}

std::string_view withoutTrailingSlashes(std::string_view path) {
  return path.substr(0, path.find_last_not_of('/') + 1);
}

/// The view of `lastPathComponent`, for a path that has something besides slashes.
std::string_view lastComponentView(std::string_view path) {
  path = withoutTrailingSlashes(path);
  return path.substr(path.rfind('/') + 1);
}

int hexValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  return -1;
}

}  // namespace

std::string lastPathComponent(std::string_view path) {
  if (path.empty()) return {};
  const auto component = lastComponentView(path);
  return component.empty() ? "/" : std::string(component);
}

std::string stringByDeletingLastPathComponent(std::string_view path) {
  if (path.empty()) return {};
  const auto component = lastComponentView(path);
  if (component.empty()) return "/";
  const auto before = path.substr(0, withoutTrailingSlashes(path).size() - component.size());
  if (before.empty()) return {};
  const auto parent = withoutTrailingSlashes(before);
  if (parent.empty()) return "/";
  std::string compressed;
  compressed.reserve(parent.size());
  for (const char character : parent) {
    if (character != '/' || !compressed.ends_with('/')) compressed += character;
  }
  return compressed;
}

std::string pathExtension(std::string_view path) {
  const auto component = lastComponentView(path);
  const auto stop = component.rfind('.');
  if (stop == std::string_view::npos || stop == 0) return {};
  const auto extension = component.substr(stop + 1);
  for (const auto ending : kNotInExtension) {
    if (extension.find(ending) != std::string_view::npos) return {};
  }
  return std::string(extension);
}

std::optional<std::string> stringByRemovingPercentEncoding(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  while (!text.empty()) {
    const auto plain = text.substr(0, text.find('%'));
    decoded += plain;
    text.remove_prefix(plain.size());
    if (text.empty()) break;
    if (text.size() < 3 || hexValue(text[1]) < 0 || hexValue(text[2]) < 0) return std::nullopt;
    decoded += static_cast<char>(hexValue(text[1]) << 4 | hexValue(text[2]));
    text.remove_prefix(3);
  }
  if (!isValidUTF8(decoded)) return std::nullopt;
  return decoded;
}

std::string_view trimmingWhitespaceAndNewlines(std::string_view text) {
  while (const auto length = leadingWhitespace(text)) text.remove_prefix(length);
  while (const auto length = trailingWhitespace(text)) text.remove_suffix(length);
  return text;
}

bool isValidUTF8(std::string_view text) {
  while (!text.empty()) {
    const auto length = utf8SequenceLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

std::optional<std::int64_t> int64FromText(std::string_view text) {
  if (text.starts_with('+')) {
    text.remove_prefix(1);
    if (text.starts_with('-')) return std::nullopt;
  }
  std::int64_t value = 0;
  const auto* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || rest != end) return std::nullopt;
  return value;
}

}  // namespace kestrowan
