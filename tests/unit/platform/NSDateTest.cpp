#include "platform/foundation/NSDate.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "support/Cases.h"

namespace kestrowan {
namespace {

double secondsOf(const test::Case& one) {
  return std::strtod(one.bytes.c_str(), nullptr);
}

TEST(NSDateDeathTest, WholeSecondsAreAsExpected) {
  for (const auto& one : test::casesOf("double-to-int", "seconds_text")) {
    if (const auto* expected = one.expected.integer()) {
      EXPECT_EQ(wholeSeconds(secondsOf(one)), *expected) << one.id;
    } else {
      EXPECT_DEATH(wholeSeconds(secondsOf(one)), "fatal error") << one.id;
    }
  }
}

TEST(NSDateTest, FractionsAreCutTowardZero) {
  EXPECT_EQ(wholeSeconds(1.9), 1);
  EXPECT_EQ(wholeSeconds(-1.9), -1);
  EXPECT_EQ(wholeSeconds(-0.5), 0);
}

TEST(NSDateDeathTest, TimesWithoutWholeSecondsAreFatal) {
  EXPECT_DEATH(wholeSeconds(std::nan("")), "fatal error");
  EXPECT_DEATH(wholeSeconds(9223372036854775808.0), "fatal error");
  EXPECT_EQ(wholeSeconds(-9223372036854775808.0), std::numeric_limits<std::int64_t>::min());
}

TEST(NSDateTest, NowIsTheTimeOfTheSystemClock) {
  const auto seconds = [] {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration<double>(now).count();
  };
  const double before = seconds();
  const double now = NSDate::now().timeIntervalSince1970;
  EXPECT_LE(before, now);
  EXPECT_LE(now, seconds());
}

}  // namespace
}  // namespace kestrowan
