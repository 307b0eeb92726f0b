#include <openssl/evp.h>

#include <algorithm>

#include "platform/foundation/NSData.h"

namespace kestrowan {

namespace {

// The library counts in int, so long data goes through it in pieces of whole groups.
constexpr std::size_t kGroupsPerPiece = 1 << 16;

bool isLetter(char character) {
  return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z') ||
         (character >= '0' && character <= '9') || character == '+' || character == '/';
}

const unsigned char* bytes(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

unsigned char* bytes(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}

}  // namespace

std::optional<NSData> dataFromBase64(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
  // The library itself would let blanks and line ends pass.
  const auto letters = text.substr(0, text.size() - padding);
  if (!std::all_of(letters.begin(), letters.end(), isLetter)) return std::nullopt;

  NSData data;
  data.reserve(text.size() / 4 * 3);
  NSData piece;
  while (!text.empty()) {
    const auto part = text.substr(0, kGroupsPerPiece * 4);
    piece.resize(part.size() / 4 * 3);
    if (EVP_DecodeBlock(bytes(piece), bytes(part), static_cast<int>(part.size())) < 0) {
      return std::nullopt;
    }
    data += piece;
    text.remove_prefix(part.size());
  }
  data.resize(data.size() - padding);
  return data;
}

std::string base64EncodedString(std::string_view data) {
  std::string text;
  text.reserve((data.size() + 2) / 3 * 4);
  std::string piece;
  while (!data.empty()) {
    const auto part = data.substr(0, kGroupsPerPiece * 3);
    const auto length = (part.size() + 2) / 3 * 4;
    piece.resize(length + 1);  // and the zero byte that the library writes behind
    EVP_EncodeBlock(bytes(piece), bytes(part), static_cast<int>(part.size()));
    text.append(piece, 0, length);
    data.remove_prefix(part.size());
  }
  return text;
}

}  // namespace kestrowan
