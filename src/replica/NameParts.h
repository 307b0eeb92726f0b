#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kestrowan::replica {

inline constexpr std::size_t kLongestName = 255;  // bytes

/// A name in two: `extension` with its full stop, or empty. The views point into the name.
struct NameParts {
  std::string_view stem;
  std::string_view extension;
};

/// Splits at the last full stop, unless nothing but full stops stands before it, nothing behind it,
/// or more than extensions have.
NameParts nameParts(std::string_view name);

/// `prefix`, the stem, `suffix` and the extension, where the stem loses of its end what is more
/// than 255 bytes in all, and never half a character. What stays of the rest must be less.
std::string assembledName(std::string_view prefix, const NameParts& parts, std::string_view suffix);

}  // namespace kestrowan::replica
