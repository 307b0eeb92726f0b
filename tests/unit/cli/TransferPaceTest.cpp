#include "cli/TransferPace.h"

#include <gtest/gtest.h>

namespace kestrowan::cli {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;

constexpr TransferPace::Clock::time_point kStart{std::chrono::hours(1000)};

/// When a transfer of so many bytes a second is found too slow, asked once a second for an hour;
/// zero for never.
seconds endAt(std::int64_t bytesPerSecond) {
  TransferPace pace(5000, kStart);
  for (seconds passed{1}; passed < minutes(60); ++passed) {
    if (pace.note(5000 + bytesPerSecond * passed.count(), kStart + passed)) return passed;
  }
  return seconds(0);
}

TEST(TransferPaceTest, LessThanSixtyKibibytesInAMinuteAreTooSlow) {
  EXPECT_EQ(endAt(0), seconds(60));
  EXPECT_EQ(endAt(1), seconds(60));
  EXPECT_EQ(endAt(1000), seconds(60));
}

TEST(TransferPaceTest, SensibleRateGoesOnForAsLongAsItTakes) {
  EXPECT_EQ(endAt(1024), seconds(0));
  EXPECT_EQ(endAt(100'000'000), seconds(0));
}

TEST(TransferPaceTest, PauseOfLessThanAMinuteDoesNotMatter) {
  TransferPace pace(0, kStart);
  EXPECT_FALSE(pace.note(1'000'000, kStart + seconds(1)));
  EXPECT_FALSE(pace.note(1'000'000, kStart + seconds(60)));
  EXPECT_FALSE(pace.note(2'000'000, kStart + seconds(61) - std::chrono::milliseconds(1)));
  EXPECT_FALSE(pace.note(2'000'000, kStart + seconds(120)));
  EXPECT_TRUE(pace.note(2'000'000, kStart + seconds(121)));
}

TEST(TransferPaceTest, DripThatFollowsAFastBeginningIsTooSlow) {
  TransferPace pace(0, kStart);
  EXPECT_FALSE(pace.note(100'000'000, kStart + seconds(1)));
  for (int second = 2; second <= 60; ++second) {
    EXPECT_FALSE(pace.note(100'000'000 + second, kStart + seconds(second)));
  }
  EXPECT_TRUE(pace.note(100'000'100, kStart + seconds(61)));
}

}  // namespace
}  // namespace kestrowan::cli
