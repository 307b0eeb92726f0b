#include "replica/NameParts.h"

#include <algorithm>

namespace kestrowan::replica {

namespace {

constexpr std::size_t kLongestExtension = 32;
constexpr std::size_t kLongestCharacter = 4;

bool continuesCharacter(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

/// The first bytes of `text`, `limit` or, where that would part a character, less.
std::string_view cutAtCharacter(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return text;
  std::size_t cut = limit;
  const std::size_t lowest = limit - std::min(limit, kLongestCharacter - 1);
  while (cut > lowest && continuesCharacter(text[cut])) --cut;
  // Bytes that are no character anyhow.
  if (continuesCharacter(text[cut])) cut = limit;
  return text.substr(0, cut);
}

}  // namespace

NameParts nameParts(std::string_view name) {
  const auto stop = name.rfind('.');
  const bool splits = stop != std::string_view::npos && stop + 1 < name.size() &&
                      name.size() - stop <= kLongestExtension && name.find_first_not_of('.') < stop;
  if (!splits) return {name, {}};
  return {name.substr(0, stop), name.substr(stop)};
}

std::string assembledName(std::string_view prefix, const NameParts& parts,
                          std::string_view suffix) {
  const std::size_t taken = prefix.size() + suffix.size() + parts.extension.size();
  std::string name(prefix);
  name += cutAtCharacter(parts.stem, kLongestName - std::min(kLongestName, taken));
  name += suffix;
  name += parts.extension;
  return name;
}

}  // namespace kestrowan::replica
