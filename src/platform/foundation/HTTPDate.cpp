#include "platform/foundation/HTTPDate.h"

#include <chrono>

namespace kestrowan {

namespace {

constexpr std::string_view kForm = "AAA, 00 AAA 0000 00:00:00 GMT";
constexpr std::string_view kWeekdays = "SunMonTueWedThuFriSat";
constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
// Earlier years are not, or not wholly, in the Gregorian calendar.
constexpr int kFirstYear = 1583;

bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

/// Digits where the form has '0', anything where it has 'A', else the form's own character.
bool hasForm(std::string_view text) {
  if (text.size() != kForm.size()) return false;
  for (std::size_t i = 0; i < kForm.size(); ++i) {
    if (kForm[i] == 'A') continue;
    if (kForm[i] == '0' ? !isDigit(text[i]) : text[i] != kForm[i]) return false;
  }
  return true;
}

int number(std::string_view digits) {
  int value = 0;
  for (const char digit : digits) value = value * 10 + (digit - '0');
  return value;
}

/// The place of `name` among the three-letter `names`, or -1.
int indexOf(std::string_view name, std::string_view names) {
  for (std::size_t i = 0; i < names.size(); i += 3) {
    if (names.substr(i, 3) == name) return static_cast<int>(i / 3);
  }
  return -1;
}

}  // namespace

std::optional<std::int64_t> secondsFromCanonicalHTTPDate(std::string_view text) {
  if (!hasForm(text) || indexOf(text.substr(0, 3), kWeekdays) < 0) return std::nullopt;
  const int month = indexOf(text.substr(8, 3), kMonths);
  const int year = number(text.substr(12, 4));
  if (month < 0 || year < kFirstYear) return std::nullopt;
  const std::chrono::year_month_day date(
      std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month + 1)),
      std::chrono::day(static_cast<unsigned>(number(text.substr(5, 2)))));
  const int hour = number(text.substr(17, 2));
  const int minute = number(text.substr(20, 2));
  const int second = number(text.substr(23, 2));
  if (!date.ok() || hour > 23 || minute > 59 || second > 59) return std::nullopt;
  const std::int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
  return days * 86400 + hour * 3600 + minute * 60 + second;
}

}  // namespace kestrowan
