#include "platform/base/Abandonment.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <thread>
#include <utility>

#include "platform/base/Executor.h"
#include "platform/base/Task.h"
#include "support/TaskResult.h"

namespace kestrowan::test {
namespace {

Task<std::shared_ptr<Abandonment>> innermost() {
  AbandonmentOfTask ofTask;
  co_return co_await ofTask;
}

Task<std::shared_ptr<Abandonment>> nested() {
  co_await Executor::shared().schedule();
  auto inner = innermost();
  co_return co_await std::move(inner);
}

TEST(AbandonmentTest, EachReactionRunsOnce) {
  Abandonment abandonment;
  int before = 0;
  int after = 0;
  abandonment.whenDeclared([&] { ++before; });
  EXPECT_FALSE(abandonment.isDeclared());
  EXPECT_EQ(before, 0);
  abandonment.declare();
  abandonment.declare();
  EXPECT_TRUE(abandonment.isDeclared());
  EXPECT_EQ(before, 1);
  abandonment.whenDeclared([&] { ++after; });
  EXPECT_EQ(after, 1);
}

TEST(AbandonmentTest, ReactionMayAskForAnother) {
  Abandonment abandonment;
  bool reacted = false;
  abandonment.whenDeclared([&] { abandonment.whenDeclared([&] { reacted = true; }); });
  abandonment.declare();
  EXPECT_TRUE(reacted);
}

TEST(AbandonmentTest, TaskAndThoseThatItAwaitsHaveTheStartersOne) {
  const auto abandonment = std::make_shared<Abandonment>();
  std::future<std::shared_ptr<Abandonment>> found;
  {
    const AbandonmentScope scope(abandonment);
    found = started(nested());
  }
  EXPECT_EQ(found.get(), abandonment);
  EXPECT_EQ(resultOf(nested()), nullptr);
}

TEST(AbandonmentTest, ScopesEndWhereTheyBegan) {
  const auto outer = std::make_shared<Abandonment>();
  const AbandonmentScope outside(outer);
  {
    const AbandonmentScope none(nullptr);
    EXPECT_EQ(Abandonment::current(), nullptr);
  }
  EXPECT_EQ(Abandonment::current(), outer);
  std::thread([] { EXPECT_EQ(Abandonment::current(), nullptr); }).join();
}

}  // namespace
}  // namespace kestrowan::test
