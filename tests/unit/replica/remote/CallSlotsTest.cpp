#include "replica/remote/CallSlots.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "async/Scope.h"
#include "async/SleepFor.h"
#include "support/SimulatedLoop.h"

namespace kestrowan::replica::remote {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class CallSlotsTest : public testing::Test {
 protected:
  void begin(int count, milliseconds duration) {
    for (int i = 0; i < count; ++i) scope.spawn(call(this, ++last, duration));
    loop.runUntilIdle();
  }
  static Task<void> call(CallSlotsTest* test, int number, milliseconds duration) {
    auto taken = test->slots.take();
    co_await taken;
    const CallSlots::Slot slot(test->slots);
    test->order.push_back(number);
    test->most = std::max(test->most, ++test->running);
    auto end = async::sleepFor(test->scope, duration);
    co_await std::move(end);
    --test->running;
  }

  test::SimulatedLoop loop;
  async::Scope scope{loop};
  CallSlots slots{scope, 4, 24};
  int last = 0;
  int running = 0;
  int most = 0;
  std::vector<int> order;
};

TEST_F(CallSlotsTest, AreAsManyAsUsualWhileAnswersAreFast) {
  begin(100, milliseconds(20));
  loop.advance(seconds(1));
  EXPECT_EQ(order.size(), 100u);
  EXPECT_EQ(most, 4);
}

TEST_F(CallSlotsTest, AreMoreWhileAnswersAreSlowAndCallsWait) {
  begin(10, seconds(4));
  EXPECT_EQ(running, 4);
  loop.advance(GrowingLimit::kPatience);
  EXPECT_EQ(running, 10);
  loop.advance(seconds(4));
  EXPECT_EQ(running, 0);
}

TEST_F(CallSlotsTest, AreMoreAtOnceWhenTheOthersHaveTakenLongAlready) {
  begin(4, seconds(4));
  loop.advance(seconds(1));
  begin(1, seconds(4));
  EXPECT_EQ(running, 5);
}

TEST_F(CallSlotsTest, HaveABound) {
  begin(40, seconds(4));
  loop.advance(seconds(1));
  EXPECT_EQ(running, 24);
  loop.advance(seconds(8));
  EXPECT_EQ(most, 24);
  EXPECT_EQ(order.size(), 40u);
}

TEST_F(CallSlotsTest, FallBackWhenNothingWaits) {
  begin(24, seconds(4));
  loop.advance(seconds(10));
  EXPECT_EQ(most, 24);
  most = 0;
  begin(100, milliseconds(20));
  loop.advance(seconds(1));
  EXPECT_EQ(most, 4);
}

TEST_F(CallSlotsTest, AreTakenInTheOrderInWhichTheyWereWantedAndNotWaitedForWithoutNeed) {
  begin(30, seconds(1));
  loop.advance(seconds(5));
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  EXPECT_EQ(order.size(), 30u);
}

TEST(CallSlotsOfFixedNumberTest, StayAsManyAsTheyAre) {
  test::SimulatedLoop loop;
  async::Scope scope{loop};
  CallSlots slots{scope, 2};
  int running = 0;
  for (int i = 0; i < 5; ++i) {
    scope.spawn([](async::Scope* own, CallSlots* taken, int* count) -> Task<void> {
      auto slot = taken->take();
      co_await slot;
      const CallSlots::Slot held(*taken);
      ++*count;
      auto end = async::sleepFor(*own, seconds(10));
      co_await std::move(end);
    }(&scope, &slots, &running));
  }
  loop.advance(seconds(9));
  EXPECT_EQ(running, 2);
  loop.advance(seconds(30));
  EXPECT_EQ(running, 5);
}

}  // namespace
}  // namespace kestrowan::replica::remote
