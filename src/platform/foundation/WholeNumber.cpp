#include "platform/foundation/WholeNumber.h"

#include <algorithm>
#include <charconv>
#include <string>

#include "platform/foundation/NSString.h"

namespace kestrowan {

namespace {

constexpr std::int64_t kMostDigits = 19;  // of a signed 64-bit number
// Beyond any number of digits that fits in memory, so that sums with one do not overflow.
constexpr std::int64_t kLargestExponent = std::int64_t{1} << 60;

/// The exponent, held within ±`kLargestExponent`.
std::int64_t clampedExponent(std::string_view text) {
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  std::int64_t value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec == std::errc::result_out_of_range) value = kLargestExponent;
  value = std::min(value, kLargestExponent);
  return negative ? -value : value;
}

}  // namespace

std::optional<std::int64_t> wholeNumberFromJSONToken(std::string_view token) {
  const bool negative = token.starts_with('-');
  if (negative) token.remove_prefix(1);
  std::int64_t exponent = 0;
  if (const auto mark = token.find_first_of("eE"); mark != std::string_view::npos) {
    exponent = clampedExponent(token.substr(mark + 1));
    token = token.substr(0, mark);
  }
  std::string digits(token);
  if (const auto point = token.find('.'); point != std::string_view::npos) {
    exponent -= static_cast<std::int64_t>(token.size() - point - 1);
    digits.erase(point, 1);
  }
  // The value is now digits × 10^exponent; bring it to its shortest form.
  digits.erase(0, digits.find_first_not_of('0'));
  if (digits.empty()) return 0;
  const auto zeros = digits.size() - 1 - digits.find_last_not_of('0');
  digits.resize(digits.size() - zeros);
  exponent += static_cast<std::int64_t>(zeros);
  if (exponent < 0 || static_cast<std::int64_t>(digits.size()) + exponent > kMostDigits) {
    return std::nullopt;
  }
  digits.append(static_cast<std::size_t>(exponent), '0');
  return int64FromText(negative ? "-" + digits : digits);
}

}  // namespace kestrowan
