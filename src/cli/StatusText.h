#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/foundation/JSONValue.h"

namespace kestrowan::cli {

/// A host's answer to "status" in words, several lines. `now` is in seconds since 1970-01-01 UTC;
/// of pending items and transfers at most `most` each are shown. Names are escaped for a terminal.
std::string statusText(const JSONValue& status, std::int64_t now, std::size_t most);

/// A length of time in a short form, as "12 s", "5 min" or "3 h 20 min"; nothing below 0.
std::string durationText(std::int64_t seconds);

}  // namespace kestrowan::cli
