#include "async/Timers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kestrowan::async {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using testing::ElementsAre;

class TimersTest : public testing::Test {
 protected:
  Loop::TimerNumber add(std::string name, milliseconds delay) {
    return timers.add(now, delay, [this, name = std::move(name)] { ran.push_back(name); });
  }
  void runDue(milliseconds later) {
    while (const auto function = timers.takeDue(now + later)) function();
  }

  const Loop::Moment now{hours(1)};
  Timers timers;
  std::vector<std::string> ran;
};

TEST_F(TimersTest, TheEarliestComesFirstAndOfEquallyEarlyOnesTheFirstAdded) {
  add("c", milliseconds(20));
  add("a", milliseconds(10));
  add("b", milliseconds(10));
  EXPECT_EQ(timers.next(), now + milliseconds(10));
  runDue(milliseconds(15));
  EXPECT_THAT(ran, ElementsAre("a", "b"));
  runDue(milliseconds(20));
  EXPECT_THAT(ran, ElementsAre("a", "b", "c"));
  EXPECT_EQ(timers.next(), std::nullopt);
}

TEST_F(TimersTest, OneThatIsTakenDoesNotComeAndCanBeTakenOnce) {
  const auto number = add("a", milliseconds(10));
  EXPECT_TRUE(timers.take(number));
  EXPECT_FALSE(timers.take(number));
  EXPECT_FALSE(timers.take(number + 1));
  runDue(hours(1));
  EXPECT_THAT(ran, ElementsAre());
}

TEST_F(TimersTest, TimesBeyondWhatAClockCountsAreCut) {
  add("far", milliseconds::max());
  add("past", milliseconds::min());
  EXPECT_EQ(timers.next(), now);
  runDue(milliseconds(0));
  EXPECT_THAT(ran, ElementsAre("past"));
  EXPECT_EQ(timers.next(), now + hours(100 * 365 * 24));
}

}  // namespace
}  // namespace kestrowan::async
