#pragma once

#include <optional>
#include <string_view>

namespace kestrowan {

/// The identifier of the type of files that is declared for a filename extension in lower case;
/// nothing when none is.
std::optional<std::string_view> declaredTypeIdentifier(std::string_view extension);

}  // namespace kestrowan
