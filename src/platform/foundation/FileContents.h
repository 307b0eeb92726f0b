#pragma once

#include <string>

#include "platform/base/UniqueFd.h"
#include "platform/foundation/NSData.h"

namespace kestrowan {

/// The whole contents of the regular file of at most 1 MiB that `file` is open to. `path` names it
/// in errors. Throws `NSError` of `NSCocoaErrorDomain`: not open, no regular file, or too large
/// (unread).
NSData fileContents(const UniqueFd& file, const std::string& path);

}  // namespace kestrowan
