#include "platform/base/Afterwards.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

#include "support/RecordingLog.h"

namespace kestrowan {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const int kOwner = 0;
const int kOther = 0;

TEST(AfterwardsTest, WorkIsDoneInOrderWhenTheTurnEnds) {
  std::vector<int> done;
  {
    const Afterwards afterwards;
    EXPECT_TRUE(Afterwards::leave(&kOwner, [&] { done.push_back(1); }));
    EXPECT_TRUE(Afterwards::leave(&kOther, [&] { done.push_back(2); }));
    EXPECT_THAT(done, IsEmpty());
  }
  EXPECT_THAT(done, ElementsAre(1, 2));
}

TEST(AfterwardsTest, AThreadOutsideOfATurnTakesNoWork) {
  EXPECT_FALSE(Afterwards::leave(&kOwner, [] {}));
  const Afterwards afterwards;
  bool taken = true;
  std::thread([&] { taken = Afterwards::leave(&kOwner, [] {}); }).join();
  EXPECT_FALSE(taken);
}

TEST(AfterwardsTest, WorkThatIsLeftByWorkIsDoneToo) {
  std::vector<int> done;
  {
    const Afterwards afterwards;
    Afterwards::leave(&kOwner, [&] {
      done.push_back(1);
      Afterwards::leave(&kOwner, [&] { done.push_back(2); });
    });
  }
  EXPECT_THAT(done, ElementsAre(1, 2));
}

TEST(AfterwardsTest, ATurnWithinATurnLeavesTheWorkToTheOuterOne) {
  std::vector<int> done;
  {
    const Afterwards outer;
    {
      const Afterwards inner;
      Afterwards::leave(&kOwner, [&] { done.push_back(1); });
    }
    EXPECT_THAT(done, IsEmpty());
  }
  EXPECT_THAT(done, ElementsAre(1));
}

TEST(AfterwardsTest, AnOwnerHasWorkUntilItIsBegun) {
  bool hadWhileDone = true;
  {
    const Afterwards afterwards;
    EXPECT_FALSE(Afterwards::has(&kOwner));
    Afterwards::leave(&kOwner, [&] { hadWhileDone = Afterwards::has(&kOwner); });
    EXPECT_TRUE(Afterwards::has(&kOwner));
    EXPECT_FALSE(Afterwards::has(&kOther));
  }
  EXPECT_FALSE(hadWhileDone);
}

TEST(AfterwardsTest, WhatThrowsIsALineInTheLogAndTheRestIsDone) {
  const test::RecordingLog log;
  bool done = false;
  {
    const Afterwards afterwards;
    Afterwards::leave(&kOwner, [] { throw std::runtime_error("broken"); });
    Afterwards::leave(&kOther, [&] { done = true; });
  }
  EXPECT_TRUE(done);
  EXPECT_EQ(log.lines().size(), 1U);
}

}  // namespace
}  // namespace kestrowan
