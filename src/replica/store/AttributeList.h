#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "replica/Records.h"

namespace kestrowan::replica {

/// Attributes as the bytes of one column: each name and each value behind its length, four bytes
/// with the least first.
std::string encodedAttributes(const AttributeMap& attributes);
/// Nothing for bytes that are no such list.
std::optional<AttributeMap> decodedAttributes(std::string_view bytes);

}  // namespace kestrowan::replica
