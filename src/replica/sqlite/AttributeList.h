#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace kestrowan::replica {

/// Attributes as the bytes of one column: each name and each value behind its length, four bytes
/// with the least first.
std::string encodedAttributes(const std::map<std::string, std::string>& attributes);
/// Nothing for bytes that are no such list.
std::optional<std::map<std::string, std::string>> decodedAttributes(std::string_view bytes);

}  // namespace kestrowan::replica
