#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/NSURL.h"

namespace kestrowan {

enum class NSURLRequestCachePolicy { useProtocolCachePolicy };

using HTTPHeaders = std::vector<std::pair<std::string, std::string>>;

/// One HTTP request without its body. A plain value.
struct NSURLRequest {
  NSURL url;
  NSURLRequestCachePolicy cachePolicy = NSURLRequestCachePolicy::useProtocolCachePolicy;
  /// Seconds without any progress after which the request fails; no limit on the whole. Connecting,
  /// the handshake included, may take as long at most.
  double timeoutInterval = 60;
  std::string httpMethod = "GET";
  /// Sent in this order, after the session's own.
  HTTPHeaders headers = {};
};

}  // namespace kestrowan
