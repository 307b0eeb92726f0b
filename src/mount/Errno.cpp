#include "mount/Errno.h"

#include <cerrno>
#include <cstdint>
#include <limits>
#include <new>
#include <string_view>

#include "platform/fileprovider/NSFileProviderError.h"
#include "replica/remote/AnswerTable.h"

namespace kestrowan::mount {

namespace {

struct Row {
  std::string_view domain;
  /// Both ends belong to the row.
  std::int64_t lowest;
  std::int64_t highest;
  int byName;
  int byNumber;
};

constexpr std::int64_t kAny = std::numeric_limits<std::int64_t>::max();

constexpr Row row(std::string_view domain, std::int64_t code, int number) {
  return {domain, code, code, number, number};
}

/// The first row that fits counts; what fits none is EIO.
constexpr Row kRows[] = {
    row(NSFileProviderErrorDomain, -1000, EACCES),  // not authenticated
    row(NSFileProviderErrorDomain, -1001, EEXIST),  // the name is taken
    row(NSFileProviderErrorDomain, -1002, EIO),     // the listing must begin anew
    row(NSFileProviderErrorDomain, -1003, EDQUOT),  // the server is full
    row(NSFileProviderErrorDomain, -1004, EIO),     // it is there, and the server fails on it
    {NSFileProviderErrorDomain, -1005, -1005, ENOENT, ESTALE},  // no such item
    row(NSFileProviderErrorDomain, -1006, EPERM),               // it may not be deleted
    row(NSFileProviderErrorDomain, -1007, ENOTEMPTY),           // the folder is not empty
    row(NSFileProviderErrorDomain, -2005, EIO),                 // cannot be synchronised
    row(NSFileProviderErrorDomain, -2009, ESTALE),              // that version is gone
    row(NSFileProviderErrorDomain, -2010, 0),                   // excluded: stays here from now on

    row(NSCocoaErrorDomain, 4, ENOENT),
    row(NSCocoaErrorDomain, 260, ENOENT),
    row(NSCocoaErrorDomain, 257, EACCES),
    row(NSCocoaErrorDomain, 513, EACCES),
    row(NSCocoaErrorDomain, 258, EINVAL),
    row(NSCocoaErrorDomain, 514, EINVAL),
    row(NSCocoaErrorDomain, 516, EEXIST),
    row(NSCocoaErrorDomain, 640, ENOSPC),
    row(NSCocoaErrorDomain, 642, EROFS),
    row(NSCocoaErrorDomain, 3072, EINTR),

    row(NSURLErrorDomain, -999, EACCES),               // the certificate is not the pinned one
    {NSURLErrorDomain, -1206, -1200, EACCES, EACCES},  // TLS
    row(NSURLErrorDomain, -1001, ETIMEDOUT),
    row(NSURLErrorDomain, -1003, EHOSTUNREACH),  // no such host
    row(NSURLErrorDomain, -1004, EHOSTUNREACH),  // no connection
    row(NSURLErrorDomain, -1009, EHOSTUNREACH),  // offline
    {NSURLErrorDomain, -kAny, kAny, EIO, EIO},
};

/// The kernel takes values below 512 and ends the request with EINVAL for others.
constexpr int kLargestErrno = 511;

}  // namespace

int errnoFor(int number) {
  if (number == ENOSYS) return ENOTSUP;
  if (number <= 0 || number > kLargestErrno || number == ENOTCONN || number == EAGAIN) return EIO;
  return number;
}

int errnoFor(const NSError& error, Addressing addressing) {
  if (error.domain() == NSPOSIXErrorDomain) {
    const bool fits = error.code() > 0 && error.code() <= kLargestErrno;
    return errnoFor(fits ? static_cast<int>(error.code()) : EIO);
  }
  if (error.domain() == replica::remote::kAnswerDomain) {
    return replica::remote::AnswerTable::number(error);
  }
  for (const auto& row : kRows) {
    if (error.domain() != row.domain) continue;
    if (error.code() < row.lowest || error.code() > row.highest) continue;
    return addressing == Addressing::byName ? row.byName : row.byNumber;
  }
  return EIO;
}

int errnoFor(const std::exception_ptr& exception, Addressing addressing) {
  try {
    std::rethrow_exception(exception);
  } catch (const NSError& error) {
    return errnoFor(error, addressing);
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  } catch (...) {
    return EIO;
  }
}

}  // namespace kestrowan::mount
