#pragma once

#include <string_view>

namespace kestrowan::mount {

/// `name`, which is at most 255 bytes long. Throws ENAMETOOLONG of `NSPOSIXErrorDomain` for others:
/// the kernel passes on up to 1024.
std::string_view checkedName(const char* name);

/// The same for the name that an item is to get. Throws EILSEQ besides for one that is not valid
/// UTF-8: no listing could ever show it again.
std::string_view checkedNewName(const char* name);

}  // namespace kestrowan::mount
