#include "platform/foundation/UTF8.h"

#include <algorithm>
#include <cstdint>

namespace kestrowan {

namespace {

std::uint8_t byteAt(std::string_view text, std::size_t index) {
  return static_cast<std::uint8_t>(text[index]);
}

bool isContinuation(std::uint8_t byte) {
  return (byte & 0xC0) == 0x80;
}

}  // namespace

std::size_t utf8SequenceLength(std::string_view text) {
  if (text.empty()) return 0;
  const auto lead = byteAt(text, 0);
  if (lead < 0x80) return 1;
  if (lead < 0xC2 || lead > 0xF4) return 0;
  const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (text.size() < length) return 0;
  // The second byte alone decides on overlong forms, surrogates and the upper end.
  std::uint8_t lowest = 0x80;
  std::uint8_t highest = 0xBF;
  if (lead == 0xE0) lowest = 0xA0;
  if (lead == 0xED) highest = 0x9F;
  if (lead == 0xF0) lowest = 0x90;
  if (lead == 0xF4) highest = 0x8F;
  if (byteAt(text, 1) < lowest || byteAt(text, 1) > highest) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if (!isContinuation(byteAt(text, i))) return 0;
  }
  return length;
}

char32_t utf8CodePoint(std::string_view sequence) {
  const auto lead = byteAt(sequence, 0);
  if (sequence.size() == 1) return lead;
  char32_t codePoint = lead & (0xFFU >> (sequence.size() + 1));
  for (std::size_t i = 1; i < sequence.size(); ++i) {
    codePoint = codePoint << 6 | (byteAt(sequence, i) & 0x3FU);
  }
  return codePoint;
}

void appendUTF8(std::string& text, char32_t codePoint) {
  const auto continuation = [&](int shift) {
    text += static_cast<char>(0x80 | (codePoint >> shift & 0x3F));
  };
  if (codePoint < 0x80) {
    text += static_cast<char>(codePoint);
  } else if (codePoint < 0x800) {
    text += static_cast<char>(0xC0 | codePoint >> 6);
    continuation(0);
  } else if (codePoint < 0x10000) {
    text += static_cast<char>(0xE0 | codePoint >> 12);
    continuation(6);
    continuation(0);
  } else {
    text += static_cast<char>(0xF0 | codePoint >> 18);
    continuation(12);
    continuation(6);
    continuation(0);
  }
}

bool isASCII(std::string_view text) {
  return std::none_of(text.begin(), text.end(),
                      [](char character) { return static_cast<unsigned char>(character) >= 0x80; });
}

}  // namespace kestrowan
