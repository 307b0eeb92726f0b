#include "async/WithTimeout.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "async/Scope.h"
#include "platform/foundation/NSError.h"
#include "support/SimulatedLoop.h"

namespace kestrowan::async {
namespace {

using std::chrono::seconds;
using Shot = OneShot<std::string>;

class WithTimeoutTest : public testing::Test {
 protected:
  static Task<void> await(WithTimeoutTest* test) {
    auto wait = withTimeout(test->scope, seconds(10), std::make_exception_ptr(NSError("late", 1)),
                            test->shot);
    try {
      test->result = co_await std::move(wait);
    } catch (const NSError& error) {
      test->result = error.domain();
    }
  }

  test::SimulatedLoop loop;
  Scope scope{loop};
  const std::shared_ptr<Abandonment> abandonment = std::make_shared<Abandonment>();
  std::shared_ptr<Shot> shot = std::make_shared<Shot>(scope, abandonment);
  std::string result;
};

TEST_F(WithTimeoutTest, TheResultThatComesInTimeIsTaken) {
  scope.spawn(await(this));
  loop.advance(seconds(9));
  EXPECT_TRUE(shot->resolve("value"));
  loop.advance(seconds(60));
  EXPECT_EQ(result, "value");
  EXPECT_FALSE(abandonment->isDeclared());
}

TEST_F(WithTimeoutTest, TheWorkIsAbandonedAfterTheLimitAndItsResultDropped) {
  scope.spawn(await(this));
  loop.advance(seconds(9));
  EXPECT_EQ(result, "");
  loop.advance(seconds(1));
  EXPECT_EQ(result, "late");
  EXPECT_TRUE(abandonment->isDeclared());
  EXPECT_FALSE(shot->resolve("value"));
}

TEST_F(WithTimeoutTest, TheTimerHoldsNothingOnceThereIsAResult) {
  scope.spawn(await(this));
  loop.runUntilIdle();
  shot->resolve("value");
  loop.runUntilIdle();
  const std::weak_ptr<Shot> watch = shot;
  shot.reset();
  EXPECT_TRUE(watch.expired());
}

}  // namespace
}  // namespace kestrowan::async
