#pragma once

#include <exception>

#include "platform/foundation/NSError.h"

namespace kestrowan::mount {

/// How a request says which item it means. One that is no more is missing by its name, and stale by
/// its number: the kernel then looks the name up again, and the program notices nothing.
enum class Addressing { byName, byNumber };

/// The value of `errno` that a waiting system call gets for `error`; 0 for what counts as success.
/// Never ENOTCONN, which says that the mount is dead, and never EAGAIN, on which programs spin.
int errnoFor(const NSError& error, Addressing addressing);

/// The same for an `errno` of the files beneath: as it is, but for the two above, for ENOSYS, after
/// which the kernel would never ask again, and for what is no `errno`.
int errnoFor(int number);

/// The same for whatever was thrown: ENOMEM for memory that ran out, EIO for what is no `NSError`.
int errnoFor(const std::exception_ptr& exception, Addressing addressing);

}  // namespace kestrowan::mount
