#pragma once

#include <string>
#include <string_view>

namespace kestrowan {

/// The SHA-256 digest of bytes, as 64 hexadecimal digits in lower case. Usable from every thread.
std::string sha256Text(std::string_view bytes);

}  // namespace kestrowan
