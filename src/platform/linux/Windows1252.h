#pragma once

#include <array>
#include <string_view>

namespace kestrowan {

/// Whether `name` is the name of the encoding windows-1252, letter case ignored.
bool isWindows1252(std::string_view name);

/// The code point of each byte of windows-1252; -1 for a byte that stands for none.
const std::array<int, 256>& windows1252CodePoints();

}  // namespace kestrowan
