#pragma once

#include <string>

namespace kestrowan::mount {

/// `name`, which is at most 255 bytes long. Throws ENAMETOOLONG of `NSPOSIXErrorDomain` for others:
/// the kernel passes on up to 1024.
std::string checkedName(const char* name);

/// The same for the name that an item is to get. Throws EILSEQ besides for one that is not valid
/// UTF-8: no listing could ever show it again.
std::string checkedNewName(const char* name);

}  // namespace kestrowan::mount
