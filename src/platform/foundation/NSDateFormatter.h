#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/NSDate.h"

namespace kestrowan {

/// Reads dates written in one fixed locale, pattern and time zone; never lenient.
/// Immutable; usable from every thread at once.
class NSDateFormatter {
 public:
  struct Settings {
    std::string localeIdentifier;
    std::string dateFormat;
    /// When the platform knows no such zone, the system's own is used.
    std::string timeZoneIdentifier;
  };

  explicit NSDateFormatter(Settings settings);
  NSDateFormatter(const NSDateFormatter&) = delete;
  NSDateFormatter& operator=(const NSDateFormatter&) = delete;
  ~NSDateFormatter();

  /// The date that `text` spells, or nothing. Only white space may follow what was read.
  std::optional<NSDate> date(std::string_view fromString) const;

 private:
  struct Engine;
  std::unique_ptr<Engine> engine_;
};

}  // namespace kestrowan
