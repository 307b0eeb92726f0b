#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace kestrowan {

/// The whole number that a JSON number token stands for exactly, as 84430e-1 stands for 8443;
/// nothing when its value has a fraction or is outside the signed 64-bit range. Takes time in
/// proportion to the length of `token`, whatever its exponent.
std::optional<std::int64_t> wholeNumberFromJSONToken(std::string_view token);

}  // namespace kestrowan
