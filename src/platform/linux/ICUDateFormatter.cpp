#include <unicode/calendar.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/uchar.h>

#include <mutex>
#include <utility>
#include <vector>

#include "platform/foundation/HTTPDate.h"
#include "platform/foundation/NSDateFormatter.h"

namespace kestrowan {

namespace {

constexpr int kLongestText = 1024;  // UTF-16 units; the rest is not looked at

icu::UnicodeString unicodeString(std::string_view text) {
  return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int>(text.size())));
}

bool onlyWhiteSpaceFrom(const icu::UnicodeString& text, int index) {
  for (; index < text.length(); ++index) {
    if (!u_isUWhiteSpace(text.charAt(index))) return false;
  }
  return true;
}

std::unique_ptr<icu::TimeZone> timeZone(const std::string& identifier) {
  std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(unicodeString(identifier)));
  if (*zone == icu::TimeZone::getUnknown()) zone.reset(icu::TimeZone::createDefault());
  return zone;
}

}  // namespace

/// ICU's formatters are made when the first text needs one and serve one thread at a time; each
/// thread that finds none idle makes another.
struct NSDateFormatter::Engine {
  Settings settings;
  bool readsHTTPDates;
  std::mutex mutex;
  std::vector<std::unique_ptr<icu::SimpleDateFormat>> idle;  // guarded by mutex

  explicit Engine(Settings theSettings) : settings(std::move(theSettings)) {
    readsHTTPDates = settings.localeIdentifier == "en_US_POSIX" &&
                     settings.dateFormat == "EEE, dd MMM yyyy HH:mm:ss zzz" &&
                     settings.timeZoneIdentifier == "GMT";
  }

  std::unique_ptr<icu::SimpleDateFormat> make() const {
    UErrorCode status = U_ZERO_ERROR;
    auto formatter = std::make_unique<icu::SimpleDateFormat>(
        unicodeString(settings.dateFormat), icu::Locale(settings.localeIdentifier.c_str()), status);
    if (U_FAILURE(status)) return nullptr;
    formatter->setLenient(false);
    formatter->adoptTimeZone(timeZone(settings.timeZoneIdentifier).release());
    return formatter;
  }

  std::unique_ptr<icu::SimpleDateFormat> take() {
    {
      std::lock_guard lock(mutex);
      if (!idle.empty()) {
        auto formatter = std::move(idle.back());
        idle.pop_back();
        return formatter;
      }
    }
    return make();
  }

  void giveBack(std::unique_ptr<icu::SimpleDateFormat> formatter) {
    std::lock_guard lock(mutex);
    idle.push_back(std::move(formatter));
  }
};

NSDateFormatter::NSDateFormatter(Settings settings)
    : engine_(std::make_unique<Engine>(std::move(settings))) {}

NSDateFormatter::~NSDateFormatter() = default;

std::optional<NSDate> NSDateFormatter::date(std::string_view fromString) const {
  if (engine_->readsHTTPDates) {
    if (const auto seconds = secondsFromCanonicalHTTPDate(fromString)) {
      return NSDate{static_cast<double>(*seconds)};
    }
  }
  auto formatter = engine_->take();
  if (!formatter) return std::nullopt;
  // No more bytes than the longest text can have; what a cut in a character adds is cut off again.
  auto text = unicodeString(fromString.substr(0, 3 * kLongestText));
  text.truncate(kLongestText);
  icu::ParsePosition position(0);
  const UDate milliseconds = formatter->parse(text, position);
  engine_->giveBack(std::move(formatter));
  if (position.getIndex() == 0 || !onlyWhiteSpaceFrom(text, position.getIndex())) {
    return std::nullopt;
  }
  return NSDate{milliseconds / 1000};
}

}  // namespace kestrowan
