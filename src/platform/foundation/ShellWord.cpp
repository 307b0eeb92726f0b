#include "platform/foundation/ShellWord.h"

#include "platform/foundation/Logger.h"

namespace kestrowan {

namespace {

constexpr std::string_view kDigits = "0123456789ABCDEF";

std::string speltOut(std::string_view text) {
  std::string word = "$'";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\'' || c == '\\') {
      word.append("\\").append(1, c);
    } else if (byte >= ' ' && byte < 0x7F) {
      word += c;
    } else {
      word.append("\\x").append(1, kDigits[byte >> 4]).append(1, kDigits[byte & 15]);
    }
  }
  return word + "'";
}

}  // namespace

std::string shellWord(std::string_view text) {
  if (escapedForDisplay(text) != text) return speltOut(text);
  std::string word = "'";
  for (const char c : text) {
    if (c == '\'') {
      word += "'\\''";
    } else {
      word += c;
    }
  }
  return word + "'";
}

}  // namespace kestrowan
