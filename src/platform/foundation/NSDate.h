#pragma once

#include <cstdint>

namespace kestrowan {

/// A point in time. Immutable in use; freely copied.
struct NSDate {
  /// Seconds since 1970-01-01 00:00:00 UTC, fractions included.
  double timeIntervalSince1970 = 0;

  static NSDate now();

  friend bool operator==(const NSDate&, const NSDate&) = default;
};

/// `seconds` without its fraction, toward zero. Fatal when `seconds` is not finite or outside the
/// signed 64-bit range.
std::int64_t wholeSeconds(double seconds);

}  // namespace kestrowan
