#include "platform/base/OneShot.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "platform/foundation/NSError.h"
#include "support/TaskResult.h"

namespace kestrowan {
namespace {

struct Outcome {
  std::string value;
  std::thread::id thread;
};

using Shot = OneShot<std::string>;

Task<Outcome> awaited(std::shared_ptr<Shot> shot) {
  auto result = Shot::result(std::move(shot));
  auto value = co_await std::move(result);
  co_return Outcome{std::move(value), std::this_thread::get_id()};
}

class OneShotTest : public testing::Test {
 protected:
  std::shared_ptr<Shot> shot = std::make_shared<Shot>();
};

TEST_F(OneShotTest, ValueGivenBeforehandIsThere) {
  shot->resolve("early");
  EXPECT_EQ(test::resultOf(awaited(shot)).value, "early");
}

TEST_F(OneShotTest, WaiterContinuesOnAnotherThreadThanTheGiver) {
  auto future = test::started(awaited(shot));
  std::thread::id giver;
  std::thread thread([&] {
    giver = std::this_thread::get_id();
    shot->resolve("late");
  });
  const auto outcome = future.get();
  thread.join();
  EXPECT_EQ(outcome.value, "late");
  EXPECT_NE(outcome.thread, giver);
}

TEST_F(OneShotTest, RejectionIsThrown) {
  shot->reject(std::make_exception_ptr(NSError("d", 2)));
  try {
    test::resultOf(awaited(shot));
    FAIL() << "no error";
  } catch (const NSError& error) {
    EXPECT_TRUE(error.is("d", 2));
  }
}

TEST_F(OneShotTest, WhatComesAfterTheFirstResultIsDropped) {
  EXPECT_TRUE(shot->resolve("first"));
  EXPECT_FALSE(shot->resolve("second"));
  EXPECT_FALSE(shot->reject(std::make_exception_ptr(NSError("d", 2))));
  EXPECT_EQ(test::resultOf(awaited(shot)).value, "first");
}

TEST_F(OneShotTest, WorkThatIsAbandonedIsToldUnlessItHasEnded) {
  const auto early = std::make_shared<Abandonment>();
  const auto late = std::make_shared<Abandonment>();
  const auto unfinished = std::make_shared<Shot>(Executor::shared(), early);
  const auto finished = std::make_shared<Shot>(Executor::shared(), late);
  const auto error = std::make_exception_ptr(NSError("d", 2));
  unfinished->abandon(error);
  finished->resolve("value");
  finished->abandon(error);
  EXPECT_TRUE(early->isDeclared());
  EXPECT_FALSE(late->isDeclared());
  EXPECT_THROW(test::resultOf(awaited(unfinished)), NSError);
  EXPECT_EQ(test::resultOf(awaited(finished)).value, "value");
}

TEST(OneShotRaceTest, GiverAndWaiterMayMeetAtAnyTime) {
  for (int i = 0; i < 2000; ++i) {
    auto shot = std::make_shared<Shot>();
    auto future = test::started(awaited(shot));
    shot->resolve(std::to_string(i));
    ASSERT_EQ(future.get().value, std::to_string(i));
  }
}

}  // namespace
}  // namespace kestrowan
