#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <string_view>

namespace kestrowan {

/// JSON text that a strict reader takes where only values that it cannot hold stood in the way.
/// What is not well-formed otherwise stays as it is.
struct ReadableJSON {
  /// Each whole number within 64 bits is written with its digits alone, each other number is 0.5,
  /// and each escape of half a character is one of U+FFFD.
  std::string text;
  /// Which strings held such an escape: their places among all strings, names included, from 0.
  std::set<std::size_t> brokenStrings;
};

/// `json` is in UTF-8. Takes time in proportion to its length.
ReadableJSON readableJSON(std::string_view json);

}  // namespace kestrowan
