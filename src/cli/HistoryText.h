#pragma once

#include <cstdint>
#include <string>

#include "platform/foundation/JSONValue.h"

namespace kestrowan::cli {

/// The answer to "history" of the mount at `mountPoint` as a table for a person, with paths on this
/// machine. `now` is in seconds since 1970-01-01 UTC.
std::string historyText(const JSONValue& history, const std::string& mountPoint, std::int64_t now);

}  // namespace kestrowan::cli
