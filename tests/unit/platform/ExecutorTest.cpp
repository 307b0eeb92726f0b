#include "platform/base/Executor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <memory>
#include <vector>

#include "platform/base/Afterwards.h"

namespace kestrowan {
namespace {

/// A coroutine that nobody awaits.
struct Background {
  struct promise_type {
    Background get_return_object() const noexcept { return {}; }
    std::suspend_never initial_suspend() const noexcept { return {}; }
    std::suspend_never final_suspend() const noexcept { return {}; }
    void return_void() const noexcept {}
    void unhandled_exception() const noexcept { std::abort(); }
  };
};

Background reportThread(Executor& executor, std::shared_ptr<std::promise<std::thread::id>> thread) {
  co_await executor.schedule();
  thread->set_value(std::this_thread::get_id());
}

Background append(Executor& executor, std::vector<int>& numbers, int number) {
  co_await executor.schedule();
  numbers.push_back(number);
}

Background count(Executor& executor, std::atomic<int>& counter) {
  co_await executor.schedule();
  ++counter;
}

TEST(ExecutorTest, CoroutinesContinueOnItsThreads) {
  Executor executor(1);
  auto thread = std::make_shared<std::promise<std::thread::id>>();
  reportThread(executor, thread);
  EXPECT_NE(thread->get_future().get(), std::this_thread::get_id());
}

TEST(ExecutorTest, OneThreadKeepsTheOrder) {
  std::vector<int> numbers;
  std::vector<int> expected;
  {
    Executor executor(1);
    for (int i = 0; i < 1000; ++i) {
      append(executor, numbers, i);
      expected.push_back(i);
    }
  }
  EXPECT_EQ(numbers, expected);
}

TEST(ExecutorTest, WhatWasPostedRunsBeforeTheEnd) {
  std::atomic<int> counter = 0;
  {
    Executor executor(3);
    for (int i = 0; i < 1000; ++i) count(executor, counter);
  }
  EXPECT_EQ(counter, 1000);
}

TEST(ExecutorTest, AThreadInATurnResumesOneCoroutineItself) {
  Executor executor(1);
  auto first = std::make_shared<std::promise<std::thread::id>>();
  auto second = std::make_shared<std::promise<std::thread::id>>();
  auto secondThread = second->get_future();
  {
    const Afterwards afterwards;
    reportThread(executor, first);
    reportThread(executor, second);
    EXPECT_NE(secondThread.get(), std::this_thread::get_id());
  }
  EXPECT_EQ(first->get_future().get(), std::this_thread::get_id());
}

TEST(ExecutorTest, TheProcessHasOne) {
  EXPECT_EQ(&Executor::shared(), &Executor::shared());
}

}  // namespace
}  // namespace kestrowan
