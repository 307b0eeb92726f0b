#include "host/PathForm.h"

#include <charconv>
#include <optional>

#include "platform/foundation/NSString.h"

namespace kestrowan::host {

namespace {

constexpr std::string_view kHexSuffix = "Hex";

std::string hexadecimal(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const unsigned char byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

std::optional<std::string> bytes(std::string_view hexadecimal) {
  if (hexadecimal.size() % 2 != 0) return std::nullopt;
  std::string found;
  for (std::size_t i = 0; i < hexadecimal.size(); i += 2) {
    unsigned char byte = 0;
    const char* const begin = hexadecimal.data() + i;
    if (std::from_chars(begin, begin + 2, byte, 16).ptr != begin + 2) return std::nullopt;
    found += static_cast<char>(byte);
  }
  return found;
}

}  // namespace

void addPath(JSONValue::Object& form, std::string_view member, std::string_view path) {
  form.emplace_back(member, path);
  if (!isValidUTF8(path)) {
    form.emplace_back(std::string(member).append(kHexSuffix), hexadecimal(path));
  }
}

std::string pathIn(const JSONValue& form, std::string_view member) {
  const auto* exact = form.member(std::string(member).append(kHexSuffix));
  if (exact != nullptr && exact->string() != nullptr) return bytes(*exact->string()).value_or("");
  const auto* text = form.member(member);
  return text != nullptr && text->string() != nullptr ? *text->string() : "";
}

}  // namespace kestrowan::host
