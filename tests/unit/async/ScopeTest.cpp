#include "async/Scope.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "async/Aside.h"
#include "async/LoopThread.h"
#include "platform/base/OneShot.h"
#include "platform/foundation/NSError.h"
#include "support/RecordingLog.h"
#include "support/SimulatedLoop.h"

namespace kestrowan::async {
namespace {

using std::chrono::milliseconds;
using std::chrono::minutes;
using testing::ElementsAre;
using testing::HasSubstr;

using Gate = OneShot<void>;

class ScopeTest : public testing::Test {
 protected:
  std::function<void()> note(std::string name) {
    return [this, name = std::move(name)] { events.push_back(name); };
  }
  static Task<void> pass(ScopeTest* test, std::shared_ptr<Gate> gate, std::shared_ptr<int> held) {
    test->events.push_back("begun");
    auto opened = Gate::result(std::move(gate));
    co_await std::move(opened);
    test->events.push_back("passed with " + std::to_string(*held));
  }
  static Task<void> workAside(ScopeTest* test) {
    test->events.push_back("begun");
    Loop::Function aside = [test] { test->events.push_back("aside"); };
    co_await runAside(test->scope, std::move(aside));
    test->events.push_back("ended");
  }
  static Task<void> failAside(ScopeTest* test) {
    Loop::Function aside = [] { throw posixError(EIO); };
    try {
      co_await runAside(test->scope, std::move(aside));
    } catch (const NSError& error) {
      test->events.push_back(std::to_string(error.code()));
    }
  }

  test::SimulatedLoop loop;
  std::vector<std::string> events;
  Scope scope{loop};
};

TEST_F(ScopeTest, RunsFunctionsTimersAndCoroutinesOnItsLoop) {
  const auto gate = std::make_shared<Gate>(scope);
  scope.post(note("function"));
  scope.postAfter(milliseconds(5), note("timer"));
  scope.spawn(pass(this, gate, std::make_shared<int>(1)));
  EXPECT_TRUE(events.empty());
  loop.advance(milliseconds(5));
  EXPECT_THAT(events, ElementsAre("function", "begun", "timer"));
  gate->resolve();
  EXPECT_EQ(events.size(), 3u);
  loop.runUntilIdle();
  EXPECT_EQ(events.back(), "passed with 1");
}

TEST_F(ScopeTest, NothingRunsAfterItWasClosed) {
  const auto gate = std::make_shared<Gate>(scope);
  scope.spawn(pass(this, gate, std::make_shared<int>(1)));
  loop.runUntilIdle();
  scope.post(note("function"));
  scope.postAfter(milliseconds(5), note("timer"));
  gate->resolve();
  scope.close();
  scope.post(note("late function"));
  scope.postAfter(milliseconds(5), note("late timer"));
  scope.spawn(pass(this, gate, std::make_shared<int>(1)));
  loop.advance(milliseconds(100));
  EXPECT_THAT(events, ElementsAre("begun"));
}

TEST_F(ScopeTest, ClosingFreesCoroutinesWhereTheyWait) {
  const auto gate = std::make_shared<Gate>(scope);
  auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> watch = held;
  scope.spawn(pass(this, gate, held));
  loop.runUntilIdle();
  scope.spawn(pass(this, std::make_shared<Gate>(scope), held));
  held.reset();
  scope.close();
  EXPECT_TRUE(watch.expired());
  gate->resolve();
  loop.runUntilIdle();
  EXPECT_THAT(events, ElementsAre("begun"));
}

TEST_F(ScopeTest, ACoroutineThatEndedHoldsNothing) {
  auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> watch = held;
  const auto gate = std::make_shared<Gate>(scope);
  gate->resolve();
  scope.spawn(pass(this, gate, std::move(held)));
  loop.runUntilIdle();
  EXPECT_TRUE(watch.expired());
  EXPECT_TRUE(scope.waitUntilEmpty(milliseconds(0)));
}

TEST_F(ScopeTest, IsEmptyWhenFunctionsHaveRunAndCoroutinesEndedWhateverTimersThereAre) {
  EXPECT_TRUE(scope.waitUntilEmpty(milliseconds(0)));
  const auto gate = std::make_shared<Gate>(scope);
  scope.postAfter(minutes(1), note("timer"));
  scope.post([&] { scope.spawn(pass(this, gate, std::make_shared<int>(1))); });
  EXPECT_FALSE(scope.waitUntilEmpty(milliseconds(0)));
  loop.runUntilIdle();
  EXPECT_FALSE(scope.waitUntilEmpty(milliseconds(0)));
  gate->resolve();
  loop.runUntilIdle();
  EXPECT_TRUE(scope.waitUntilEmpty(milliseconds(0)));
}

TEST_F(ScopeTest, WhatIsThrownIsALineInTheLog) {
  const test::RecordingLog log;
  scope.post([] { throw std::runtime_error("function"); });
  scope.spawn([]() -> Task<void> {
    throw std::runtime_error("coroutine");
    co_return;
  }());
  scope.post(note("goes on"));
  loop.runUntilIdle();
  EXPECT_THAT(events, ElementsAre("goes on"));
  EXPECT_THAT(log.lines(), ElementsAre(HasSubstr("in the loop"), HasSubstr("in the loop")));
  EXPECT_TRUE(scope.waitUntilEmpty(milliseconds(0)));
}

TEST_F(ScopeTest, ACancelledTimerDoesNotRun) {
  scope.cancel(scope.postAfter(milliseconds(1), note("timer")));
  loop.advance(milliseconds(10));
  EXPECT_TRUE(events.empty());
  EXPECT_EQ(scope.now(), loop.now());
  EXPECT_EQ(scope.wallClock(), loop.wallClock());
}

TEST(ScopeThreadTest, ClosingWaitsForTheFunctionThatRuns) {
  LoopThread loop;
  Scope scope(loop);
  std::promise<void> begun;
  std::promise<void> mayEnd;
  std::atomic<bool> ended = false;
  scope.post([&] {
    begun.set_value();
    mayEnd.get_future().wait();
    ended = true;
  });
  begun.get_future().wait();
  std::thread closing([&] {
    scope.close();
    EXPECT_TRUE(ended);
  });
  mayEnd.set_value();
  closing.join();
}

TEST(ScopeThreadTest, WaitingEndsWithTheLastCoroutine) {
  LoopThread loop;
  Scope scope(loop);
  int count = 0;
  const auto gate = std::make_shared<Gate>(scope);
  scope.spawn([](Scope* own, std::shared_ptr<Gate> opened, int* counted) -> Task<void> {
    auto result = Gate::result(std::move(opened));
    co_await std::move(result);
    own->post([counted] { ++*counted; });
    ++*counted;
  }(&scope, gate, &count));
  std::thread opening([&] { gate->resolve(); });
  EXPECT_TRUE(scope.waitUntilEmpty(minutes(5)));
  EXPECT_EQ(count, 2);
  opening.join();
}

TEST(ScopeThreadTest, ClosingMeetsWhatIsUnderWayAtAnyTime) {
  LoopThread loop;
  for (int round = 0; round < 500; ++round) {
    auto count = std::make_shared<int>(0);
    Scope scope(loop);
    const auto gate = std::make_shared<Gate>(scope);
    for (int i = 0; i < 3; ++i) {
      scope.spawn([](std::shared_ptr<int> counted, std::shared_ptr<Gate> opened) -> Task<void> {
        ++*counted;
        auto result = Gate::result(std::move(opened));
        co_await std::move(result);
        ++*counted;
      }(count, i == 0 ? gate : std::make_shared<Gate>(scope)));
    }
    std::thread opening([&] { gate->resolve(); });
    scope.close();
    const int reached = *count;
    opening.join();
    EXPECT_EQ(count.use_count(), 1);
    EXPECT_EQ(*count, reached);
  }
}

TEST_F(ScopeTest, WhatRunsAsideGivesItsResultToTheLoop) {
  loop.holdAside(true);
  scope.spawn(workAside(this));
  scope.post(note("function"));
  loop.runUntilIdle();
  EXPECT_THAT(events, ElementsAre("begun", "function"));
  loop.holdAside(false);
  loop.runUntilIdle();
  EXPECT_THAT(events, ElementsAre("begun", "function", "aside", "ended"));
}

TEST_F(ScopeTest, WhatFailsAsideThrows) {
  scope.spawn(failAside(this));
  loop.runUntilIdle();
  EXPECT_THAT(events, ElementsAre(std::to_string(EIO)));
}

TEST_F(ScopeTest, NothingRunsAsideAfterItWasClosed) {
  loop.holdAside(true);
  scope.postAside(note("aside"));
  scope.close();
  scope.postAside(note("late"));
  loop.holdAside(false);
  loop.runUntilIdle();
  EXPECT_TRUE(events.empty());
  EXPECT_TRUE(scope.waitUntilEmpty(milliseconds(0)));
}

TEST(ScopeAsideTest, ClosingWaitsForWhatRunsAside) {
  LoopThread thread;
  std::promise<void> begun;
  std::promise<void> end;
  std::atomic<bool> isEnded = false;
  {
    Scope own(thread);
    own.postAside([&] {
      begun.set_value();
      end.get_future().wait();
      isEnded = true;
    });
    begun.get_future().wait();
    std::thread closer([&] {
      own.close();
      EXPECT_TRUE(isEnded);
    });
    // The loop itself goes on.
    std::promise<void> passed;
    thread.post([&] { passed.set_value(); });
    passed.get_future().wait();
    end.set_value();
    closer.join();
  }
}

}  // namespace
}  // namespace kestrowan::async
