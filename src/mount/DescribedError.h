#pragma once

#include <string>

#include "platform/foundation/NSError.h"

namespace kestrowan {

/// An error of `NSPOSIXErrorDomain` with a text for a person, which names what it is about and,
/// where there is something to do, says so.
NSError describedError(int number, std::string text);

/// The same for a failed system call: "SUBJECT: " and the system's own text.
NSError systemError(int number, const std::string& subject);

}  // namespace kestrowan
