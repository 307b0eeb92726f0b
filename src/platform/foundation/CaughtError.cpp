#include "platform/foundation/CaughtError.h"

#include <cerrno>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>

namespace kestrowan {

namespace {

/// Made while there is memory; a copy takes none.
const NSError& memoryError() {
  static const NSError error = posixError(ENOMEM);
  return error;
}

[[maybe_unused]] const NSError& madeEarly = memoryError();

bool isSystems(const std::error_code& code) {
  return code.category() == std::generic_category() || code.category() == std::system_category();
}

NSError describedIOError(const char* text) {
  return NSError(NSPOSIXErrorDomain, EIO, {{std::string(NSLocalizedDescriptionKey), text}});
}

NSError translated(const std::exception_ptr& exception) {
  try {
    std::rethrow_exception(exception);
  } catch (const NSError& error) {
    return error;
  } catch (const std::bad_alloc&) {
    return memoryError();
  } catch (const std::length_error&) {
    return memoryError();
  } catch (const std::system_error& error) {
    return isSystems(error.code()) ? posixError(error.code().value())
                                   : describedIOError(error.what());
  } catch (const std::exception& error) {
    return describedIOError(error.what());
  } catch (...) {
    return posixError(EIO);
  }
}

}  // namespace

NSError asError(const std::exception_ptr& exception) noexcept {
  try {
    return translated(exception);
  } catch (...) {
    // Even the error's own text found no memory.
    return memoryError();
  }
}

NSError caughtError() noexcept {
  return asError(std::current_exception());
}

}  // namespace kestrowan
