#include "platform/foundation/HTTPDate.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <random>
#include <string>

#include "platform/foundation/NSDateFormatter.h"

namespace kestrowan {
namespace {

constexpr std::array kDays = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr std::array kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

class HTTPDateTest : public testing::Test {
 protected:
  int upTo(int limit) { return std::uniform_int_distribution(0, limit)(random_); }

  std::string randomDate(int firstYear, int lastYear, int lastDay) {
    char text[64];
    std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT",
                  kDays[static_cast<std::size_t>(upTo(6))], upTo(lastDay),
                  kMonths[static_cast<std::size_t>(upTo(11))],
                  firstYear + upTo(lastYear - firstYear), upTo(24), upTo(60), upTo(60));
    return text;
  }

  /// The engine's own answer: the other spelling of the zone keeps the short way out of it.
  std::optional<double> engineSeconds(const std::string& text) const {
    const auto date = engine_.date(text);
    if (!date) return std::nullopt;
    return date->timeIntervalSince1970;
  }

  /// Counts the texts of canonical form; they must have the engine's answer.
  void compare(const std::string& text) {
    const auto seconds = secondsFromCanonicalHTTPDate(text);
    if (!seconds) return;
    ++canonical_;
    EXPECT_EQ(engineSeconds(text), static_cast<double>(*seconds)) << text;
  }

  std::mt19937 random_{20240229};
  int canonical_ = 0;
  const NSDateFormatter engine_{{"en_US_POSIX", "EEE, dd MMM yyyy HH:mm:ss zzz", "Etc/GMT"}};
};

TEST_F(HTTPDateTest, CanonicalDatesNeedNoEngine) {
  EXPECT_EQ(secondsFromCanonicalHTTPDate("Tue, 15 Nov 1994 08:12:31 GMT"), 784887151);
  EXPECT_EQ(secondsFromCanonicalHTTPDate("Wed, 15 Nov 1994 08:12:31 GMT"), 784887151);
  EXPECT_EQ(secondsFromCanonicalHTTPDate("Thu, 01 Jan 1970 00:00:00 GMT"), 0);
  EXPECT_EQ(secondsFromCanonicalHTTPDate("Wed, 31 Dec 1969 23:59:59 GMT"), -1);
  EXPECT_EQ(secondsFromCanonicalHTTPDate("Tue, 29 Feb 2000 00:00:00 GMT"), 951782400);
  EXPECT_EQ(secondsFromCanonicalHTTPDate("Fri, 31 Dec 9999 23:59:59 GMT"), 253402300799);
}

TEST_F(HTTPDateTest, EverythingElseIsLeftToTheEngine) {
  for (const auto* text : {"", "tue, 15 Nov 1994 08:12:31 GMT", "Tue, 15 Nov 1994 08:12:31 UTC",
                           "Tue, 15 Nov 1994 08:12:31 GMT ", "Tue, 15 Nov 1582 08:12:31 GMT",
                           "Tue, 29 Feb 2023 08:12:31 GMT", "Tue, 31 Apr 2023 08:12:31 GMT",
                           "Tue, 15 Nov 1994 24:12:31 GMT", "Tue, 15 Nov 1994 08:60:31 GMT",
                           "Tue, 15 Nov 1994 08:12:60 GMT", "Tue, 00 Nov 1994 08:12:31 GMT",
                           "Tux, 15 Nov 1994 08:12:31 GMT", "unM, 15 Nov 1994 08:12:31 GMT",
                           "Tue, 15 anF 1994 08:12:31 GMT", "Tue, 15 Nov 1994 0/:12:31 GMT",
                           "Tue, 15 Nov 1994 08:12:3: GMT"}) {
    EXPECT_EQ(secondsFromCanonicalHTTPDate(text), std::nullopt) << text;
  }
}

TEST_F(HTTPDateTest, RandomDatesHaveTheEnginesAnswer) {
  for (int i = 0; i < 20'000; ++i) compare(randomDate(1583, 9999, 31));
  for (int i = 0; i < 20'000; ++i) compare(randomDate(1890, 2110, 31));
  EXPECT_GT(canonical_, 30'000);
}

TEST_F(HTTPDateTest, LastAndFirstDaysOfMonthsHaveTheEnginesAnswer) {
  for (int year = 1583; year <= 9999; year += year < 2500 ? 1 : 97) {
    for (const auto* date : {"01 Jan", "28 Feb", "29 Feb", "01 Mar", "31 Dec"}) {
      char text[64];
      std::snprintf(text, sizeof text, "Mon, %s %04d 00:00:00 GMT", date, year);
      const auto seconds = secondsFromCanonicalHTTPDate(text);
      const auto expected = engineSeconds(text);
      ASSERT_EQ(seconds.has_value(), expected.has_value()) << text;
      if (seconds) {
        ASSERT_EQ(static_cast<double>(*seconds), *expected) << text;
      }
    }
  }
}

TEST_F(HTTPDateTest, MutatedTextsHaveTheEnginesAnswer) {
  constexpr std::string_view kCharacters = "0123456789 ,:-+.GMTUCZSunMonJanfeb\t\n\x01\xC3\xA9";
  for (int i = 0; i < 40'000; ++i) {
    auto text = randomDate(1000, 9999, 32);
    for (int mutations = upTo(2); mutations > 0; --mutations) {
      const auto at = static_cast<std::size_t>(upTo(static_cast<int>(text.size()) - 1));
      const auto character =
          kCharacters[static_cast<std::size_t>(upTo(static_cast<int>(kCharacters.size()) - 1))];
      switch (upTo(2)) {
        case 0:
          text[at] = character;
          break;
        case 1:
          text.insert(at, 1, character);
          break;
        default:
          text.erase(at, 1);
      }
    }
    compare(text);
  }
  EXPECT_GT(canonical_, 10'000);
}

}  // namespace
}  // namespace kestrowan
