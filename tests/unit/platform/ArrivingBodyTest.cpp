#include "platform/network/ArrivingBody.h"

#include <gtest/gtest.h>

#include <vector>

namespace kestrowan {
namespace {

ArrivingBody bodyWith(ArrivingBody::Controls controls) {
  return {{200, 100, "\"a\""}, UniqueFd(), std::move(controls)};
}

TEST(ArrivingBodyTest, OffsetsAreToldOnceWhenTheyAreReached) {
  auto body = bodyWith({});
  std::vector<int> told;
  body.whenReached(0, [&] { told.push_back(0); });
  body.whenReached(10, [&] { told.push_back(10); });
  body.whenReached(20, [&] { told.push_back(20); });
  EXPECT_EQ(told, (std::vector{0}));
  body.noteReached(9);
  EXPECT_EQ(told, (std::vector{0}));
  body.noteReached(15);
  EXPECT_EQ(told, (std::vector{0, 10}));
  body.whenReached(15, [&] { told.push_back(15); });
  body.noteReached(100);
  EXPECT_EQ(told, (std::vector{0, 10, 15, 20}));
  EXPECT_EQ(body.bytes(), 100);
}

TEST(ArrivingBodyTest, PausesAtItsLimitAndGoesOnOnce) {
  int goneOn = 0;
  auto body = bodyWith({.goOn = [&] { ++goneOn; }});
  EXPECT_TRUE(body.mayTake());
  body.setLimit(10);
  body.noteReached(9);
  EXPECT_TRUE(body.mayTake());
  body.noteReached(12);
  EXPECT_FALSE(body.mayTake());
  body.setLimit(12);
  EXPECT_EQ(goneOn, 0);
  body.setLimit(13);
  body.setLimit(ArrivingBody::kNoLimit);
  EXPECT_EQ(goneOn, 1);
  EXPECT_TRUE(body.mayTake());
}

TEST(ArrivingBodyTest, MayBeCancelled) {
  int cancelled = 0;
  const auto body = bodyWith({.cancel = [&] { ++cancelled; }});
  body.cancel();
  EXPECT_EQ(cancelled, 1);
  bodyWith({}).cancel();
}

}  // namespace
}  // namespace kestrowan
