#include "platform/base/GrowingLimit.h"

#include <gtest/gtest.h>

namespace kestrowan {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;

class GrowingLimitTest : public testing::Test {
 protected:
  const GrowingLimit::Moment start{hours(1)};
  GrowingLimit limit{4, 24};
};

TEST_F(GrowingLimitTest, StaysWhileOneBeginsAfterAnother) {
  auto now = start;
  for (int i = 0; i < 100; ++i) {
    limit.noteBegin(now);
    now += GrowingLimit::kPatience - milliseconds(1);
    limit.grow(50, now);
    limit.noteEnd(3, 50);
  }
  EXPECT_EQ(limit.value(), 4u);
}

TEST_F(GrowingLimitTest, GrowsByAsManyAsWaitWhenNothingHasBegunForAWhile) {
  limit.noteBegin(start);
  EXPECT_EQ(limit.growsAt(), start + GrowingLimit::kPatience);
  limit.grow(6, limit.growsAt());
  EXPECT_EQ(limit.value(), 10u);
}

TEST_F(GrowingLimitTest, HasABound) {
  limit.noteBegin(start);
  limit.grow(1000, limit.growsAt());
  EXPECT_EQ(limit.value(), 24u);
  EXPECT_FALSE(limit.canGrow());
}

TEST_F(GrowingLimitTest, FallsBackAsTheyEndAndNoneWaits) {
  limit.noteBegin(start);
  limit.grow(16, limit.growsAt());
  limit.noteEnd(19, 5);
  EXPECT_EQ(limit.value(), 20u) << "another takes the place";
  limit.noteEnd(15, 0);
  EXPECT_EQ(limit.value(), 15u);
  limit.noteEnd(2, 0);
  EXPECT_EQ(limit.value(), 4u);
}

}  // namespace
}  // namespace kestrowan
