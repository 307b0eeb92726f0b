#include "platform/foundation/NSDate.h"

#include <chrono>
#include <cmath>

#include "platform/base/Fatal.h"

namespace kestrowan {

NSDate NSDate::now() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return NSDate{std::chrono::duration<double>(sinceEpoch).count()};
}

std::int64_t wholeSeconds(double seconds) {
  constexpr double kLimit = 9223372036854775808.0;  // 2^63
  if (!std::isfinite(seconds) || seconds >= kLimit || seconds < -kLimit) {
    fatalError("a time is outside the range of whole seconds");
  }
  return static_cast<std::int64_t>(seconds);
}

}  // namespace kestrowan
