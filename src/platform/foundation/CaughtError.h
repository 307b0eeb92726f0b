#pragma once

#include <exception>

#include "platform/foundation/NSError.h"

namespace kestrowan {

/// What `exception` is as an `NSError`: itself when it is one; ENOMEM when there was no memory; the
/// system's own number for a failed call of the system; else EIO with the exception's text. Usable
/// from every thread; does not throw.
NSError asError(const std::exception_ptr& exception) noexcept;

/// The same for the exception that is being handled.
NSError caughtError() noexcept;

}  // namespace kestrowan
