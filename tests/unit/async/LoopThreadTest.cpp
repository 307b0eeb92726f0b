#include "async/LoopThread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <ctime>
#include <functional>
#include <future>
#include <memory>
#include <new>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/base/Afterwards.h"
#include "support/RecordingLog.h"

namespace kestrowan::async {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using ::testing::ElementsAre;

/// Waits until the loop has run everything that was posted before.
void drain(LoopThread& loop) {
  std::promise<void> reached;
  loop.post([&] { reached.set_value(); });
  reached.get_future().wait();
}

TEST(LoopThread, RunsWhatIsPostedInOrderOnOneOtherThread) {
  std::vector<int> order;
  std::vector<std::thread::id> threads;
  LoopThread loop;
  for (int i = 0; i < 1000; ++i) {
    loop.post([&, i] {
      order.push_back(i);
      threads.push_back(std::this_thread::get_id());
    });
  }
  drain(loop);
  std::vector<int> expected(1000);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(order, expected);
  EXPECT_NE(threads.front(), std::this_thread::get_id());
  EXPECT_EQ(std::count(threads.begin(), threads.end(), threads.front()), 1000);
}

TEST(LoopThread, KeepsTheOrderOfEachThreadThatPosts) {
  constexpr int kThreads = 4;
  constexpr int kEach = 2000;
  std::vector<std::pair<int, int>> seen;
  {
    LoopThread loop;
    std::vector<std::thread> posters;
    for (int thread = 0; thread < kThreads; ++thread) {
      posters.emplace_back([&, thread] {
        for (int i = 0; i < kEach; ++i) loop.post([&, thread, i] { seen.emplace_back(thread, i); });
      });
    }
    for (auto& poster : posters) poster.join();
  }
  ASSERT_EQ(seen.size(), static_cast<std::size_t>(kThreads * kEach));
  std::vector<int> next(kThreads, 0);
  for (const auto& [thread, i] : seen) EXPECT_EQ(i, next[static_cast<std::size_t>(thread)]++);
}

TEST(LoopThread, AThreadInATurnRunsWhatItPostsAtTheTurnsEnd) {
  LoopThread loop;
  std::vector<std::thread::id> threads;
  const auto note = [&] { threads.push_back(std::this_thread::get_id()); };
  {
    const Afterwards afterwards;
    loop.post([&] {
      note();
      loop.post(note);
    });
    EXPECT_TRUE(threads.empty());
  }
  const auto self = std::this_thread::get_id();
  EXPECT_THAT(threads, ElementsAre(self, self));
}

TEST(LoopThread, ATurnDoesNotWaitForWhatTheLoopDoesNow) {
  LoopThread loop;
  std::promise<void> isBusy;
  std::promise<void> mayEnd;
  std::promise<std::thread::id> thread;
  loop.post([&] {
    isBusy.set_value();
    mayEnd.get_future().wait();
  });
  isBusy.get_future().wait();
  {
    const Afterwards afterwards;
    loop.post([&] { thread.set_value(std::this_thread::get_id()); });
  }
  mayEnd.set_value();
  EXPECT_NE(thread.get_future().get(), std::this_thread::get_id());
}

TEST(LoopThread, ATurnEndsThoughThereIsAlwaysMoreToRun) {
  LoopThread loop;
  std::promise<void> taken;
  const auto self = std::this_thread::get_id();
  std::function<void()> again = [&] {
    if (std::this_thread::get_id() == self) {
      loop.post(again);
    } else {
      taken.set_value();
    }
  };
  {
    const Afterwards afterwards;
    loop.post(again);
  }
  taken.get_future().wait();
}

TEST(LoopThread, TurnsOfManyThreadsRunOneFunctionAtATime) {
  constexpr int kThreads = 4;
  constexpr int kEach = 2000;
  std::atomic<int> inside = 0;
  std::atomic<int> overlaps = 0;
  int runs = 0;
  {
    LoopThread loop;
    const auto function = [&] {
      if (++inside != 1) ++overlaps;
      ++runs;
      --inside;
    };
    std::vector<std::thread> posters;
    for (int thread = 0; thread < kThreads; ++thread) {
      posters.emplace_back([&] {
        for (int i = 0; i < kEach; ++i) {
          const Afterwards afterwards;
          loop.post(function);
          if (i % 100 == 0) loop.postAfter(milliseconds(0), function);
        }
      });
    }
    for (auto& poster : posters) poster.join();
  }
  EXPECT_GE(runs, kThreads * kEach);
  EXPECT_EQ(overlaps, 0);
}

TEST(LoopThread, AFunctionPostedFromTheLoopRunsLaterNotInside) {
  LoopThread loop;
  std::vector<int> order;
  std::promise<void> done;
  loop.post([&] {
    loop.post([&] {
      order.push_back(2);
      done.set_value();
    });
    order.push_back(1);
  });
  done.get_future().wait();
  EXPECT_THAT(order, ElementsAre(1, 2));
}

TEST(LoopThread, TimersRunWhenTheyAreDueAndInThatOrder) {
  LoopThread loop;
  std::vector<int> order;
  std::promise<void> done;
  const auto start = loop.now();
  Loop::Moment last;
  loop.postAfter(milliseconds(60), [&] {
    order.push_back(3);
    last = loop.now();
    done.set_value();
  });
  loop.postAfter(milliseconds(30), [&] { order.push_back(2); });
  loop.postAfter(milliseconds(5), [&] { order.push_back(1); });
  done.get_future().wait();
  EXPECT_THAT(order, ElementsAre(1, 2, 3));
  EXPECT_GE(last - start, milliseconds(60));
}

TEST(LoopThread, ATimerInThePastRunsAtOnceAndOneFarInTheFutureNot) {
  LoopThread loop;
  std::promise<void> done;
  std::atomic<bool> farRan = false;
  loop.postAfter(milliseconds::max(), [&] { farRan = true; });
  loop.postAfter(milliseconds(-5), [&] { done.set_value(); });
  done.get_future().wait();
  drain(loop);
  EXPECT_FALSE(farRan);
}

TEST(LoopThread, ACancelledTimerDoesNotRun) {
  LoopThread loop;
  bool ran = false;
  std::promise<void> done;
  // On the loop, so that none of the timers can run in between.
  loop.post([&] {
    const auto timer = loop.postAfter(milliseconds(0), [&] { ran = true; });
    loop.postAfter(milliseconds(1), [&] { done.set_value(); });
    loop.cancel(timer);
    loop.cancel(timer);
    loop.cancel(12345);
  });
  done.get_future().wait();
  EXPECT_FALSE(ran);
}

TEST(LoopThread, CancellingATimerThatRunsDoesNothing) {
  LoopThread loop;
  std::promise<void> done;
  auto number = std::make_shared<Loop::TimerNumber>();
  loop.post([&, number] {
    *number = loop.postAfter(milliseconds(0), [&, number] {
      loop.cancel(*number);
      done.set_value();
    });
  });
  done.get_future().wait();
}

TEST(LoopThread, WhatACancelledTimerHoldsMayUseTheLoopWhenItGoes) {
  LoopThread loop;
  std::promise<void> done;
  std::shared_ptr<void> held(nullptr, [&](void*) { loop.post([&] { done.set_value(); }); });
  const auto timer = loop.postAfter(hours(1), [held] {});
  held.reset();
  loop.cancel(timer);
  done.get_future().wait();
}

TEST(LoopThread, NeitherTimersNorPostsKeepTheOthersWaiting) {
  LoopThread loop;
  std::atomic<bool> stop = false;
  std::atomic<int> posts = 0;
  std::atomic<int> timers = 0;
  std::promise<void> enough;
  std::function<void()> post = [&] {
    ++posts;
    if (!stop) loop.post(post);
  };
  std::function<void()> timer = [&] {
    if (++timers == 100) enough.set_value();
    if (!stop) loop.postAfter(milliseconds(0), timer);
  };
  loop.post(post);
  loop.postAfter(milliseconds(0), timer);
  enough.get_future().wait();
  stop = true;
  drain(loop);
  EXPECT_GE(posts, 50);
}

TEST(LoopThread, EndsAfterWhatWasPostedAndWithoutItsTimers) {
  std::vector<int> order;
  bool timerRan = false;
  {
    LoopThread loop;
    loop.postAfter(hours(1), [&] { timerRan = true; });
    for (int i = 0; i < 100; ++i) {
      loop.post([&, i] {
        order.push_back(i);
        if (i == 99) loop.post([&] { order.push_back(100); });
      });
    }
  }
  EXPECT_EQ(order.size(), 101u);
  EXPECT_FALSE(timerRan);
}

TEST(LoopThread, LetsGoOfAFunctionBeforeItRunsTheNext) {
  LoopThread loop;
  auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> watch = held;
  loop.post([kept = std::move(held)] {});
  drain(loop);
  EXPECT_TRUE(watch.expired());
}

TEST(LoopThread, GoesOnWhenAFunctionThrows) {
  const test::RecordingLog log;
  LoopThread loop;
  loop.post([] { throw std::runtime_error("broken"); });
  loop.postAfter(milliseconds(0), [] { throw std::bad_alloc(); });
  std::promise<void> timerRan;
  loop.postAfter(milliseconds(1), [&] { timerRan.set_value(); });
  timerRan.get_future().wait();
  drain(loop);
  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_NE(log.lines()[0].find("left unhandled in the loop"), std::string::npos);
}

TEST(LoopThread, ItsThreadTakesNoSignalsButThoseOfItsFaults) {
  sigset_t before;
  ::pthread_sigmask(SIG_SETMASK, nullptr, &before);
  LoopThread loop;
  sigset_t inside;
  std::promise<void> done;
  loop.post([&] {
    ::pthread_sigmask(SIG_SETMASK, nullptr, &inside);
    done.set_value();
  });
  done.get_future().wait();
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGUSR1, SIGPIPE, SIGALRM}) {
    EXPECT_EQ(::sigismember(&inside, signal), 1) << signal;
  }
  for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
    EXPECT_EQ(::sigismember(&inside, signal), 0) << signal;
  }
  sigset_t after;
  ::pthread_sigmask(SIG_SETMASK, nullptr, &after);
  for (int signal = 1; signal < SIGRTMIN; ++signal) {
    EXPECT_EQ(::sigismember(&before, signal), ::sigismember(&after, signal)) << signal;
  }
}

TEST(LoopThread, TheWallClockCountsMillisecondsSince1970) {
  const LoopThread loop;
  const auto before = std::int64_t{std::time(nullptr)} * 1000;
  const auto now = loop.wallClock();
  const auto after = (std::int64_t{std::time(nullptr)} + 1) * 1000;
  EXPECT_GE(now, before - 1000);
  EXPECT_LE(now, after);
}

TEST(LoopThread, WhatBlocksAsideKeepsNeitherTheLoopNorOthersWaiting) {
  LoopThread loop;
  std::promise<void> end;
  const auto ended = end.get_future().share();
  std::atomic<int> begun = 0;
  for (int i = 0; i < 3; ++i) {
    loop.postAside([&begun, ended] {
      ++begun;
      ended.wait();
    });
  }
  drain(loop);
  std::promise<void> other;
  loop.postAside([&] { other.set_value(); });
  other.get_future().wait();
  end.set_value();
}

TEST(LoopThread, AllThatIsPostedAsideRuns) {
  std::atomic<int> count = 0;
  {
    LoopThread loop;
    for (int i = 0; i < 1000; ++i) loop.postAside([&] { ++count; });
  }
  EXPECT_EQ(count, 1000);
}

}  // namespace
}  // namespace kestrowan::async
