#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kestrowan {

/// JSON text in UTF-8 from text in UTF-8, UTF-16 or UTF-32, which its first four bytes tell apart,
/// with or without a byte order mark. Nothing when it is cut short or has a lone surrogate or a
/// number that is no character. UTF-8 is passed on unchecked, without its mark.
std::optional<std::string> utf8FromJSONText(std::string_view text);

}  // namespace kestrowan
