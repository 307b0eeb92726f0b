#pragma once

#include <string_view>

namespace kestrowan::mount {

/// `name`, which is at most 255 bytes long. Throws ENAMETOOLONG of `NSPOSIXErrorDomain` for others:
/// the kernel passes on up to 1024.
std::string_view checkedName(const char* name);

}  // namespace kestrowan::mount
