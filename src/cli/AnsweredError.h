#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/base/Abandonment.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::cli {

/// The error of a request, with what the server answered to its last HTTP request where that said
/// no. `caller` is the request's.
NSError withAnswer(const NSError& error, const std::shared_ptr<Abandonment>& caller);

/// The status of that answer.
std::optional<std::int64_t> answerStatus(const NSError& error);
/// What was answered so: "PUT"; empty without an answer.
std::string answeredRequest(const NSError& error);
/// What the error had to tell before.
NSError::UserInfo plainUserInfo(const NSError& error);

}  // namespace kestrowan::cli
