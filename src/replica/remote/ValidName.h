#pragma once

#include <string_view>

namespace kestrowan::replica::remote {

/// Whether `name` can be one item's name: not empty, ".", "..", over 255 bytes, or with "/" or NUL
/// in it. Names are bytes, not necessarily UTF-8.
bool isValidName(std::string_view name);

}  // namespace kestrowan::replica::remote
