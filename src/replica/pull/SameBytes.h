#pragma once

#include <string>

namespace kestrowan::replica::pull {

/// Whether two regular files hold the same bytes. Reads both; false when one cannot be read.
bool haveSameBytes(const std::string& path, const std::string& other);

}  // namespace kestrowan::replica::pull
