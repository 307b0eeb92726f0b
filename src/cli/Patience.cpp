#include "cli/Patience.h"

#include <algorithm>
#include <string>

#include "cli/TransferPace.h"
#include "platform/network/TransferMonitor.h"

namespace kestrowan::cli {

namespace {

constexpr std::chrono::seconds kLookInterval{1};

NSError tooLate(const std::string& text) {
  return NSError(NSURLErrorDomain, NSURLErrorTimedOut,
                 {{std::string(NSLocalizedDescriptionKey), text}});
}

NSError notWithin(std::chrono::seconds limit) {
  return tooLate("The request was given up after " + std::to_string(limit.count()) + " s.");
}

}  // namespace

Patience::Patience(std::optional<std::chrono::seconds> limit)
    : limit_(limit), start_(Clock::now()) {}

std::optional<NSError> Patience::waitWithin(const WaitForAnswer& wait,
                                            std::optional<std::chrono::seconds> usualLimit) const {
  if (limit_) {
    const auto left = std::max(start_ + *limit_ - Clock::now(), Clock::duration::zero());
    return wait(left) ? std::nullopt : std::optional(notWithin(*limit_));
  }
  if (usualLimit) return wait(*usualLimit) ? std::nullopt : std::optional(notWithin(*usualLimit));
  const auto& monitor = TransferMonitor::shared();
  TransferPace pace(monitor.bytesMoved(), Clock::now());
  while (!wait(kLookInterval)) {
    if (pace.note(monitor.bytesMoved(), Clock::now())) {
      return tooLate("The transfer was given up: it moved less than 60 KiB in a minute.");
    }
  }
  return std::nullopt;
}

}  // namespace kestrowan::cli
