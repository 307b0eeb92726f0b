#pragma once

#include <string>
#include <string_view>

#include "platform/foundation/JSONValue.h"

namespace kestrowan::host {

/// Paths are bytes, of which JSON text takes only valid UTF-8. A path is a member of its name, for
/// people and programs to read, and, when it is not valid UTF-8, one more whose name ends in "Hex",
/// with every byte as two hexadecimal digits.

/// Adds the member or members for `path`.
void addPath(JSONValue::Object& form, std::string_view member, std::string_view path);

/// The path that was added; empty when there is none or it is malformed.
std::string pathIn(const JSONValue& form, std::string_view member);

}  // namespace kestrowan::host
