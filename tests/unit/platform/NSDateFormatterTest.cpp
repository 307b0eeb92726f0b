#include "platform/foundation/NSDateFormatter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/Cases.h"

namespace kestrowan {
namespace {

const NSDateFormatter::Settings kHTTPDates{"en_US_POSIX", "EEE, dd MMM yyyy HH:mm:ss zzz", "GMT"};

constexpr double kExample = 784887151;

class NSDateFormatterTest : public testing::Test {
 protected:
  std::optional<double> seconds(std::string_view text) const {
    const auto date = formatter.date(text);
    if (!date) return std::nullopt;
    return date->timeIntervalSince1970;
  }

  const NSDateFormatter formatter{kHTTPDates};
};

TEST_F(NSDateFormatterTest, HTTPDatesAreReadAsExpected) {
  const std::string strict = "the engine is stricter: two digits and the exact punctuation";
  const std::string literal = "the engine takes every year as it is written";
  test::checkCases("http-date", "http_date",
                   [&](const test::Case& one) -> JSONValue {
                     const auto date = seconds(one.bytes);
                     return date ? JSONValue(*date) : JSONValue();
                   },
                   {{"http-date-003", strict},
                    {"http-date-004", strict},
                    {"http-date-033", literal},
                    {"http-date-034", literal},
                    {"http-date-101", strict},
                    {"http-date-103", strict},
                    {"http-date-160", strict},
                    {"http-date-183", strict}});
}

TEST_F(NSDateFormatterTest, LetterCaseAndLongNamesDoNotMatter) {
  EXPECT_EQ(seconds("tue, 15 nov 1994 08:12:31 gmt"), kExample);
  EXPECT_EQ(seconds("Tuesday, 15 November 1994 08:12:31 UTC"), kExample);
}

TEST_F(NSDateFormatterTest, OnlyWhiteSpaceMayFollow) {
  EXPECT_EQ(seconds("Tue, 15 Nov 1994 08:12:31 GMT \t\n\xC2\xA0"), kExample);
  EXPECT_EQ(seconds("Tue, 15 Nov 1994 08:12:31 GMTX"), std::nullopt);
  EXPECT_EQ(seconds("Tue, 15 Nov 1994 08:12:31 GMT ."), std::nullopt);
  EXPECT_EQ(seconds(std::string("Tue, 15 Nov 1994 08:12:31 GMT\0", 30)), std::nullopt);
}

TEST_F(NSDateFormatterTest, TextBehindTheLongestIsNotLookedAt) {
  const std::string date = "Tue, 15 Nov 1994 08:12:31 GMT";
  const auto padded = date + std::string(1024 - date.size(), ' ');
  EXPECT_EQ(seconds(padded + "not looked at"), kExample);
  EXPECT_EQ(seconds(padded.substr(1) + "x"), std::nullopt);
  EXPECT_EQ(seconds(date + std::string(10'000'000, ' ')), kExample);
  std::string wide = date;
  while (wide.size() < 4000) wide += "\xE3\x80\x80";
  EXPECT_EQ(seconds(wide), kExample);
}

TEST_F(NSDateFormatterTest, TextThatIsNoDateGivesNothing) {
  for (const auto* text : {"", " ", "GMT", "\xFF\xFE", "Tue, 15 Nov 1994 08:12:31",
                           "Tue, 15 Nov 1994 08:12:31 \xFF", "Tue, 29 Feb 1900 00:00:00 GMT",
                           "Xyz, 15 Nov 1994 08:12:31 GMT", "Tue, 00 Nov 1994 08:12:31 GMT",
                           "Tue, 15 Nov 0000 08:12:31 GMT", "Tue, 15 Nov 1994 08:12:60 GMT"}) {
    EXPECT_EQ(seconds(text), std::nullopt) << text;
  }
}

TEST_F(NSDateFormatterTest, TheEpochIsADateToo) {
  EXPECT_EQ(seconds("Thu, 01 Jan 1970 00:00:00 GMT"), 0);
  EXPECT_EQ(seconds("thu, 01 jan 1970 00:00:00 gmt"), 0);
}

TEST_F(NSDateFormatterTest, ManyThreadsReadAtOnce) {
  std::atomic<int> wrong = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] {
      // Half of the threads take the way of the canonical form, half that of the others.
      const std::string date =
          i % 2 == 0 ? "Tue, 15 Nov 1994 08:12:31 GMT" : "Tuesday, 15 Nov 1994 08:12:31 GMT";
      for (int j = 0; j < 500; ++j) {
        if (seconds(date) != kExample) ++wrong;
        if (seconds(date + "?")) ++wrong;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(NSDateFormatterTest, OtherPatternsAndZonesAreKept) {
  const NSDateFormatter inTokyo({"en_US_POSIX", "yyyy-MM-dd HH:mm:ss", "Asia/Tokyo"});
  const auto date = inTokyo.date("1970-01-01 09:00:00");
  ASSERT_TRUE(date);
  EXPECT_EQ(date->timeIntervalSince1970, 0);
  EXPECT_EQ(inTokyo.date("Tue, 15 Nov 1994 08:12:31 GMT"), std::nullopt);
}

TEST_F(NSDateFormatterTest, UnknownZoneIsTheSystemsOwn) {
  const NSDateFormatter nowhere({"en_US_POSIX", "yyyy-MM-dd HH:mm:ss", "Nowhere/Land"});
  EXPECT_TRUE(nowhere.date("1970-01-02 00:00:00"));
}

}  // namespace
}  // namespace kestrowan
