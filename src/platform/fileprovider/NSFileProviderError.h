#pragma once

#include <string_view>

#include "platform/foundation/NSError.h"

namespace kestrowan {

inline constexpr std::string_view NSFileProviderErrorDomain = "NSFileProviderErrorDomain";

/// Codes of `NSFileProviderErrorDomain`.
enum class NSFileProviderErrorCode : std::int64_t {
  notAuthenticated = -1000,
  filenameCollision = -1001,
  syncAnchorExpired = -1002,
  insufficientQuota = -1003,
  serverUnreachable = -1004,
  noSuchItem = -1005,
  versionOutOfDate = -1006,
  directoryNotEmpty = -1007,
};

/// The error of `code` with an empty user info.
inline NSError NSFileProviderError(NSFileProviderErrorCode code) {
  return NSError(NSFileProviderErrorDomain, static_cast<std::int64_t>(code));
}

}  // namespace kestrowan
