#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kestrowan {

/// The length in bytes of the well-formed UTF-8 sequence that `text` begins with; 0 when it begins
/// with none. No overlong forms, no surrogates, nothing above U+10FFFF.
std::size_t utf8SequenceLength(std::string_view text);

/// The code point of a well-formed sequence of one to four bytes.
char32_t utf8CodePoint(std::string_view sequence);

/// Adds the UTF-8 form of `codePoint`, which must be a Unicode scalar value, to `text`.
void appendUTF8(std::string& text, char32_t codePoint);

/// Whether every byte of `text` is below 0x80.
bool isASCII(std::string_view text);

}  // namespace kestrowan
