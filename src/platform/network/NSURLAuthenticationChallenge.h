#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/network/Security.h"

namespace kestrowan {

inline constexpr std::string_view NSURLAuthenticationMethodServerTrust =
    "NSURLAuthenticationMethodServerTrust";
inline constexpr std::string_view NSURLAuthenticationMethodClientCertificate =
    "NSURLAuthenticationMethodClientCertificate";
inline constexpr std::string_view NSURLAuthenticationMethodHTTPBasic =
    "NSURLAuthenticationMethodHTTPBasic";

/// What a server asks to be authenticated. Immutable.
struct NSURLProtectionSpace {
  std::string authenticationMethod;
  /// Only for the server-trust method, and even then possibly null.
  std::shared_ptr<const SecTrust> serverTrust;
};

struct NSURLAuthenticationChallenge {
  NSURLProtectionSpace protectionSpace;
};

/// What answers a challenge: here only "this server is trusted".
struct NSURLCredential {
  std::shared_ptr<const SecTrust> trust;
};

enum class NSURLSessionAuthChallengeDisposition {
  useCredential,
  performDefaultHandling,
  cancelAuthenticationChallenge,
};

using NSURLSessionChallengeHandler =
    std::function<void(NSURLSessionAuthChallengeDisposition, std::optional<NSURLCredential>)>;

}  // namespace kestrowan
