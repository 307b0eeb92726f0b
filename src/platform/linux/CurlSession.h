#pragma once

#include <memory>

#include "platform/linux/CurlEngine.h"
#include "platform/network/NSURLSession.h"

namespace kestrowan {

/// What `NSURLSession::session` makes, with other limits than the usual ones.
std::shared_ptr<NSURLSession> makeCurlSession(const NSURLSessionConfiguration& configuration,
                                              std::weak_ptr<NSURLSessionDelegate> delegate,
                                              CurlLimits limits = {});

}  // namespace kestrowan
