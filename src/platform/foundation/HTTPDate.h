#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace kestrowan {

/// The time that `text` spells when it has exactly the 29 characters of a canonical HTTP date, as
/// in "Tue, 15 Nov 1994 08:12:31 GMT", with a real day of the years 1583 to 9999: whole seconds
/// since 1970-01-01 UTC. Nothing for any other text, which may still be a date to a real formatter.
/// The name of the weekday must be one, but need not fit the day.
std::optional<std::int64_t> secondsFromCanonicalHTTPDate(std::string_view text);

}  // namespace kestrowan
