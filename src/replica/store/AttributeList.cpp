#include "replica/store/AttributeList.h"

#include <cstdint>

namespace kestrowan::replica {

namespace {

constexpr std::size_t kLengthBytes = 4;
constexpr unsigned kByteBits = 8;

void append(std::string& bytes, std::string_view text) {
  const auto length = static_cast<std::uint32_t>(text.size());
  for (unsigned i = 0; i < kLengthBytes; ++i) {
    bytes += static_cast<char>((length >> (kByteBits * i)) & 0xFF);
  }
  bytes += text;
}

/// Takes one text off the front of `bytes`; nothing when they are no whole one.
std::optional<std::string_view> takeText(std::string_view& bytes) {
  if (bytes.size() < kLengthBytes) return std::nullopt;
  std::uint32_t length = 0;
  for (unsigned i = 0; i < kLengthBytes; ++i) {
    length |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i])) << (kByteBits * i);
  }
  bytes.remove_prefix(kLengthBytes);
  if (length > bytes.size()) return std::nullopt;
  const auto text = bytes.substr(0, length);
  bytes.remove_prefix(length);
  return text;
}

}  // namespace

std::string encodedAttributes(const AttributeMap& attributes) {
  std::string bytes;
  for (const auto& [name, value] : attributes) {
    append(bytes, name);
    append(bytes, value);
  }
  return bytes;
}

std::optional<AttributeMap> decodedAttributes(std::string_view bytes) {
  AttributeMap attributes;
  while (!bytes.empty()) {
    const auto name = takeText(bytes);
    if (!name) return std::nullopt;
    const auto value = takeText(bytes);
    if (!value) return std::nullopt;
    attributes.emplace(*name, *value);
  }
  return attributes;
}

}  // namespace kestrowan::replica
