#include "support/SimulatedLoop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kestrowan::test {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using ::testing::ElementsAre;

class SimulatedLoopTest : public ::testing::Test {
 protected:
  /// What a function does that says its name and the time.
  std::function<void()> note(std::string name) {
    return [this, name = std::move(name)] {
      events_.push_back(name + " " + std::to_string(loop_.wallClock() - start_));
    };
  }

  SimulatedLoop loop_;
  const std::int64_t start_ = loop_.wallClock();
  std::vector<std::string> events_;
};

TEST_F(SimulatedLoopTest, NothingRunsUnlessTheTestSaysSo) {
  loop_.post(note("a"));
  loop_.postAfter(milliseconds(0), note("b"));
  EXPECT_TRUE(events_.empty());
  EXPECT_EQ(loop_.runUntilIdle(), 2u);
  EXPECT_THAT(events_, ElementsAre("a 0", "b 0"));
  EXPECT_EQ(loop_.runUntilIdle(), 0u);
}

TEST_F(SimulatedLoopTest, RunsWhatThePostedFunctionsPost) {
  loop_.post([&] {
    loop_.post(note("second"));
    note("first")();
  });
  loop_.runUntilIdle();
  EXPECT_THAT(events_, ElementsAre("first 0", "second 0"));
}

TEST_F(SimulatedLoopTest, TimersWaitForTheirTime) {
  loop_.postAfter(milliseconds(100), note("a"));
  loop_.runUntilIdle();
  loop_.advance(milliseconds(99));
  EXPECT_TRUE(events_.empty());
  loop_.advance(milliseconds(1));
  EXPECT_THAT(events_, ElementsAre("a 100"));
}

TEST_F(SimulatedLoopTest, AdvancingRunsTimersInOrderAndWhatTheyPost) {
  loop_.postAfter(milliseconds(30), note("c"));
  loop_.postAfter(milliseconds(10), [&] {
    note("a")();
    loop_.post(note("a posted"));
    loop_.postAfter(milliseconds(10), note("b"));
  });
  loop_.postAfter(milliseconds(30), note("d"));
  loop_.advance(milliseconds(50));
  EXPECT_THAT(events_, ElementsAre("a 10", "a posted 10", "b 20", "c 30", "d 30"));
  EXPECT_EQ(loop_.wallClock() - start_, 50);
}

TEST_F(SimulatedLoopTest, AdvancingAlsoRunsWhatIsPostedAlready) {
  loop_.post(note("a"));
  loop_.advance(milliseconds(5));
  EXPECT_THAT(events_, ElementsAre("a 0"));
}

TEST_F(SimulatedLoopTest, BothClocksGoTogetherUntilOneIsSet) {
  const auto before = loop_.now();
  loop_.advance(hours(2));
  EXPECT_EQ(loop_.now() - before, hours(2));
  EXPECT_EQ(loop_.wallClock() - start_, 7'200'000);
  loop_.stepWallClock(-hours(1));
  EXPECT_EQ(loop_.now() - before, hours(2));
  EXPECT_EQ(loop_.wallClock() - start_, 3'600'000);
}

TEST_F(SimulatedLoopTest, RunsUntilSomethingIsTrueAndStopsThere) {
  bool reached = false;
  loop_.postAfter(milliseconds(20), [&] { reached = true; });
  loop_.postAfter(milliseconds(20), note("later"));
  EXPECT_TRUE(loop_.runUntil([&] { return reached; }, milliseconds(100)));
  EXPECT_EQ(loop_.wallClock() - start_, 20);
  EXPECT_TRUE(events_.empty());
}

TEST_F(SimulatedLoopTest, RunningUntilNothingHappensTakesTheWholeLimit) {
  loop_.postAfter(milliseconds(200), note("late"));
  EXPECT_FALSE(loop_.runUntil([&] { return !events_.empty(); }, milliseconds(100)));
  EXPECT_EQ(loop_.wallClock() - start_, 100);
  EXPECT_TRUE(loop_.runUntil([&] { return !events_.empty(); }, milliseconds(100)));
}

TEST_F(SimulatedLoopTest, ACancelledTimerDoesNotRun) {
  const auto timer = loop_.postAfter(milliseconds(1), note("a"));
  loop_.postAfter(milliseconds(1), note("b"));
  loop_.cancel(timer);
  loop_.cancel(timer);
  loop_.advance(milliseconds(10));
  EXPECT_THAT(events_, ElementsAre("b 1"));
}

TEST_F(SimulatedLoopTest, WorkWithoutEndIsReported) {
  std::function<void()> again = [&] { loop_.post(again); };
  loop_.post(again);
  EXPECT_THROW(loop_.runUntilIdle(), std::runtime_error);
}

TEST_F(SimulatedLoopTest, OtherThreadsMayPost) {
  constexpr int kThreads = 4;
  constexpr int kEach = 500;
  int count = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int k = 0; k < kEach; ++k) {
        loop_.post([&] { ++count; });
        loop_.cancel(loop_.postAfter(milliseconds(1), [&] { ++count; }));
      }
    });
  }
  while (count < kThreads * kEach) loop_.runUntilIdle();
  for (auto& thread : threads) thread.join();
  loop_.advance(milliseconds(10));
  EXPECT_EQ(count, kThreads * kEach);
}

}  // namespace
}  // namespace kestrowan::test
