#include "platform/base/Task.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <new>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "platform/base/OneShot.h"
#include "platform/foundation/NSError.h"
#include "support/RecordingLog.h"
#include "support/TaskResult.h"

namespace kestrowan {
namespace {

Task<int> answer(int value) {
  co_return value;
}

Task<int> failure() {
  throw NSError("d", 1);
  co_return 0;
}

Task<std::unique_ptr<int>> movable() {
  co_return std::make_unique<int>(7);
}

Task<int> sum(int depth) {
  if (depth == 0) co_return 0;
  auto rest = sum(depth - 1);
  co_return 1 + co_await std::move(rest);
}

Task<int> repeatedly(int times) {
  int total = 0;
  for (int i = 0; i < times; ++i) {
    auto one = answer(1);
    total += co_await std::move(one);
  }
  co_return total;
}

Task<void> set(bool* started) {
  *started = true;
  co_return;
}

using test::resultOf;

TEST(TaskTest, ValuesReachTheAwaiter) {
  EXPECT_EQ(resultOf(answer(5)), 5);
  EXPECT_EQ(*resultOf(movable()), 7);
}

TEST(TaskTest, ErrorsReachTheAwaiterWithTheirIdentity) {
  try {
    resultOf(failure());
    FAIL() << "no error";
  } catch (const NSError& error) {
    EXPECT_TRUE(error.is("d", 1));
  }
}

TEST(TaskTest, TasksMayNest) {
  EXPECT_EQ(resultOf(sum(500)), 500);
}

TEST(TaskTest, TasksMayBeAwaitedOneAfterTheOther) {
  EXPECT_EQ(resultOf(repeatedly(500)), 500);
}

TEST(TaskTest, UnawaitedTaskNeverStarts) {
  bool started = false;
  { const auto task = set(&started); }
  EXPECT_FALSE(started);
}

Task<std::thread::id> currentThread() {
  co_return std::this_thread::get_id();
}

TEST(TaskTest, DetachedTasksRunOnTheSharedExecutor) {
  EXPECT_NE(resultOf(currentThread()), std::this_thread::get_id());
}

TEST(TaskTest, TasksWithoutAValueEndToo) {
  bool started = false;
  resultOf(set(&started));
  EXPECT_TRUE(started);
}

Task<void> fail() {
  throw NSError("d", 1);
  co_return;
}

TEST(TaskTest, ErrorOfADetachedTaskIsALineInTheLogAndNothingEnds) {
  const test::RecordingLog log;
  startDetached(fail());
  ASSERT_TRUE(waitForDetachedTasks(std::chrono::seconds(60)));
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_NE(log.lines()[0].find("left unhandled in a background task"), std::string::npos);
  bool started = false;
  resultOf(set(&started));
  EXPECT_TRUE(started);
}

template <typename Exception>
Task<void> failWith(Exception exception) {
  throw exception;
  co_return;
}

template <typename Exception>
std::int64_t codeOf(Exception exception) {
  try {
    resultOf(failWith(exception));
  } catch (const NSError& error) {
    EXPECT_EQ(error.domain(), NSPOSIXErrorDomain);
    return error.code();
  }
  return 0;
}

TEST(TaskTest, WantOfMemoryAndErrorsOfTheSystemReachTheAwaiterAsErrors) {
  EXPECT_EQ(codeOf(std::bad_alloc()), ENOMEM);
  EXPECT_EQ(codeOf(std::length_error("too long")), ENOMEM);
  EXPECT_EQ(codeOf(std::system_error(EAGAIN, std::system_category())), EAGAIN);
}

/// Holds on to something until it is told to end.
Task<void> holding(std::shared_ptr<int> held, std::shared_ptr<OneShot<bool>> end) {
  auto told = OneShot<bool>::result(end);
  co_await std::move(told);
  *held = 1;
}

TEST(TaskTest, BackgroundTasksCanBeWaitedForWithAllThatTheyHold) {
  auto held = std::make_shared<int>(0);
  auto end = std::make_shared<OneShot<bool>>();
  startDetached(holding(held, end));
  EXPECT_FALSE(waitForDetachedTasks(std::chrono::milliseconds(1)));
  end->resolve(true);
  EXPECT_TRUE(waitForDetachedTasks(std::chrono::minutes(1)));
  EXPECT_EQ(*held, 1);
  EXPECT_EQ(held.use_count(), 1);
}

}  // namespace
}  // namespace kestrowan
