#include "replica/remote/Health.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <vector>

#include "platform/fileprovider/NSFileProviderError.h"
#include "support/InMemoryExtension.h"
#include "support/SimulatedLoop.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::replica::remote {
namespace {

using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;

const NSError kRefusedConnection{NSURLErrorDomain, NSURLErrorCannotConnectToHost};

class HealthTest : public testing::Test {
 protected:
  HealthTest() {
    provider.setExtension(extension);
    health.begin();
  }
  ~HealthTest() override {
    health.stop();
    provider.stop();
    loop.runUntilIdle();
  }

  void goAway() {
    extension->setDown(true);
    health.note(kRefusedConnection);
  }
  void beAwayForLong() {
    goAway();
    health.note(kRefusedConnection);
    health.note(kRefusedConnection);
    loop.advance(minutes(10));
    extension->clearCalls();
  }
  /// Begins to wait; the answers are gathered.
  void wait() {
    scope.spawn([](HealthTest* test) -> Task<void> {
      auto reached = test->health.awaitServer();
      const bool answers = co_await std::move(reached);
      test->answers.push_back(answers);
    }(this));
    loop.runUntilIdle();
  }
  std::size_t attempts() const { return extension->count(test::CallKind::enumerateItems); }

  test::TemporaryDirectory directory;
  test::SimulatedLoop loop;
  async::Scope scope{loop};
  std::shared_ptr<test::InMemoryExtension> extension = std::make_shared<test::InMemoryExtension>(
      loop, directory.path(), std::make_shared<test::MemoryServer>());
  Provider provider{scope, {}, IdentifierForm::paths()};
  Health health{scope, provider, [] {}};
  std::vector<bool> answers;
};

TEST_F(HealthTest, NothingIsWaitedForWhileTheServerAnswers) {
  wait();
  EXPECT_EQ(answers, std::vector<bool>{true});
  EXPECT_EQ(attempts(), 0u);
}

TEST_F(HealthTest, AServerThatComesBackWithinThePatienceIsFoundTenthsOfASecondLater) {
  goAway();
  wait();
  loop.advance(milliseconds(1500));
  EXPECT_TRUE(answers.empty());
  extension->setDown(false);
  loop.advance(milliseconds(100));
  EXPECT_EQ(answers, std::vector<bool>{true});
  EXPECT_TRUE(health.isUp());
}

TEST_F(HealthTest, AllThatWaitShareAttemptsOfWhichThereAreTenASecondAtMost) {
  goAway();
  for (int i = 0; i < 50; ++i) wait();
  loop.advance(milliseconds(2950));
  EXPECT_TRUE(answers.empty());
  EXPECT_GE(attempts(), 25u);
  EXPECT_LE(attempts(), 32u) << "one by the clock besides";
  EXPECT_EQ(extension->mostAtOnce(test::CallKind::enumerateItems), 1u);
  loop.advance(milliseconds(200));
  EXPECT_EQ(answers, std::vector<bool>(50, false));
}

TEST_F(HealthTest, AServerThatHasBeenAwayForLongIsAskedForOnce) {
  beAwayForLong();
  wait();
  loop.advance(milliseconds(100));
  EXPECT_EQ(answers, std::vector<bool>{false});
  EXPECT_EQ(attempts(), 1u);
  wait();
  loop.advance(milliseconds(100));
  EXPECT_EQ(answers, (std::vector<bool>{false, false}));
  EXPECT_EQ(attempts(), 2u);
}

TEST_F(HealthTest, AServerThatIsBackAfterLongIsNoticedByTheFirstCall) {
  beAwayForLong();
  EXPECT_FALSE(health.isUp());
  extension->setDown(false);
  wait();
  EXPECT_EQ(answers, std::vector<bool>{true});
  EXPECT_TRUE(health.isUp());
  EXPECT_EQ(attempts(), 1u);
}

TEST_F(HealthTest, AnAttemptThatHangsIsNotWaitedForByOneCallAfterAnother) {
  beAwayForLong();
  extension->setFaults([](const test::Call&) { return test::Fault{.hangs = true}; });
  wait();
  loop.advance(seconds(3));
  EXPECT_EQ(answers, std::vector<bool>{false});
  wait();
  EXPECT_EQ(answers, (std::vector<bool>{false, false}));
  EXPECT_EQ(attempts(), 1u);
  extension->releaseHung();
}

TEST_F(HealthTest, NothingIsAskedWhileOnlyAnotherConfigurationHelps) {
  { health.note(NSFileProviderError(NSFileProviderErrorCode::notAuthenticated)); }
  wait();
  EXPECT_EQ(answers, std::vector<bool>{false});
  EXPECT_EQ(attempts(), 0u);
}

TEST_F(HealthTest, WhatWaitsIsAnsweredAtTheStop) {
  goAway();
  wait();
  loop.advance(milliseconds(500));
  { health.stop(); }
  loop.runUntilIdle();
  EXPECT_EQ(answers, std::vector<bool>{false});
}

}  // namespace
}  // namespace kestrowan::replica::remote
