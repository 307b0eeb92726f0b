#pragma once

#include <curl/curl.h>

#include <string_view>

#include "platform/foundation/NSError.h"

namespace kestrowan {

/// An error of `NSURLErrorDomain`; `reason`, when not empty, is kept as "NSUnderlyingError".
NSError urlError(NSURLErrorCode code, std::string_view reason = {});

/// The error of `NSURLErrorDomain` for want of memory, made beforehand.
const NSError& outOfMemoryError();

/// The error of `NSURLErrorDomain` for a transfer that ended with `code`, which is not `CURLE_OK`.
/// `requestSent` tells whether the request had been handed to a connection; `reason` is curl's
/// text.
NSError urlErrorForCurl(CURLcode code, bool requestSent, std::string_view reason);

}  // namespace kestrowan
