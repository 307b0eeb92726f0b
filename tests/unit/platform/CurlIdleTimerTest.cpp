#include "platform/linux/CurlIdleTimer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <utility>
#include <vector>

namespace kestrowan {
namespace {

using Clock = CurlIdleTimer::Clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr Clock::time_point kStart{std::chrono::hours(1000)};

/// A connection on which bytes move at given times after its start.
class Connection {
 public:
  Connection(std::vector<milliseconds> moves, bool isDated)
      : moves_(std::move(moves)), isDated_(isDated) {}

  CurlTraffic traffic(Clock::time_point now) const {
    CurlTraffic traffic;
    for (const auto move : moves_) {
      if (kStart + move > now) break;
      traffic.bytesMoved += 10;
      if (isDated_) {
        traffic.quietFor = std::chrono::duration_cast<milliseconds>(now - kStart - move);
      }
    }
    return traffic;
  }

  /// How long after the start a timer of a minute ends it, asked only when it wants to be.
  milliseconds end() const {
    CurlIdleTimer timer(60);
    timer.restart(kStart);
    auto now = timer.nextCheck();
    while (!timer.note(traffic(now), now)) now = timer.nextCheck();
    return std::chrono::duration_cast<milliseconds>(now - kStart);
  }

 private:
  std::vector<milliseconds> moves_;
  bool isDated_;
};

TEST(CurlIdleTimerTest, SixtySecondsWithoutAByteEndAfterSixtySeconds) {
  EXPECT_EQ(Connection({}, true).end(), seconds(60));
  for (const milliseconds last : {milliseconds(1), milliseconds(700), milliseconds(1000),
                                  milliseconds(14999), milliseconds(59990), milliseconds(59999)}) {
    EXPECT_EQ(Connection({last}, true).end(), last + seconds(60)) << last.count();
    EXPECT_EQ(Connection({last / 2, last}, true).end(), last + seconds(60)) << last.count();
  }
}

TEST(CurlIdleTimerTest, ASystemThatDoesNotTellTheTimeCostsASecond) {
  for (const milliseconds last : {milliseconds(1), milliseconds(1001), milliseconds(59001)}) {
    const auto end = Connection({last}, false).end();
    EXPECT_GE(end, last + seconds(60)) << last.count();
    EXPECT_LE(end, last + seconds(61)) << last.count();
  }
}

TEST(CurlIdleTimerTest, EveryByteCountsHoweverSlowlyTheyCome) {
  std::vector<milliseconds> moves;
  for (int i = 1; i <= 100; ++i) moves.push_back(i * milliseconds(59900));
  EXPECT_EQ(Connection(moves, true).end(), moves.back() + seconds(60));
}

TEST(CurlIdleTimerTest, TrafficOfAnEarlierRequestDoesNotCount) {
  // A connection that is used again has moved bytes long ago.
  CurlIdleTimer timer(60);
  timer.restart(kStart);
  const CurlTraffic old{1000, std::chrono::hours(1)};
  EXPECT_FALSE(timer.note(old, kStart + seconds(1)));
  EXPECT_FALSE(timer.note(old, kStart + milliseconds(59999)));
  EXPECT_TRUE(timer.note(old, kStart + seconds(60)));
}

TEST(CurlIdleTimerTest, RepliesToProbesAreNoProgress) {
  CurlIdleTimer timer(60);
  timer.restart(kStart);
  for (int second = 1; second < 60; ++second) {
    EXPECT_FALSE(timer.note({10, milliseconds(0)}, kStart + seconds(second)));
  }
  EXPECT_TRUE(timer.note({10, milliseconds(0)}, kStart + seconds(61)));
}

TEST(CurlIdleTimerTest, LimitsBeyondReasonAreBounded) {
  CurlIdleTimer shortest(-1);
  shortest.restart(kStart);
  EXPECT_TRUE(shortest.note({}, kStart + milliseconds(1)));
  for (const double limit : {1e300, static_cast<double>(NAN)}) {
    CurlIdleTimer longest(limit);
    longest.restart(kStart);
    EXPECT_FALSE(longest.note({}, kStart + std::chrono::hours(167)));
    EXPECT_TRUE(longest.note({}, kStart + std::chrono::hours(168)));
  }
}

}  // namespace
}  // namespace kestrowan
