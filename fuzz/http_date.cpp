// Dates: the short way for canonical ones against the engine.

#include "fuzz/FuzzTarget.h"
#include "platform/foundation/HTTPDate.h"
#include "platform/foundation/NSDateFormatter.h"

using namespace kestrowan;

namespace {

constexpr auto kPattern = "EEE, dd MMM yyyy HH:mm:ss zzz";

const NSDateFormatter& formatter() {
  static const NSDateFormatter httpDates({"en_US_POSIX", kPattern, "GMT"});
  return httpDates;
}

/// The other spelling of the zone keeps the short way out of it.
const NSDateFormatter& engine() {
  static const NSDateFormatter httpDates({"en_US_POSIX", kPattern, "Etc/GMT"});
  return httpDates;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto text = fuzz::text(data, size);
  const auto expected = engine().date(text);
  fuzz::require(formatter().date(text) == expected, "both ways read the same date");
  if (const auto seconds = secondsFromCanonicalHTTPDate(text)) {
    fuzz::require(expected && expected->timeIntervalSince1970 == static_cast<double>(*seconds),
                  "a canonical date is the engine's date");
  }
  return 0;
}
