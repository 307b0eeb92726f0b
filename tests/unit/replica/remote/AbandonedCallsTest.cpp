#include "replica/remote/Provider.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "async/Scope.h"
#include "platform/base/Abandonment.h"
#include "platform/foundation/NSError.h"
#include "support/InMemoryExtension.h"
#include "support/SimulatedLoop.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::test {
namespace {

using replica::remote::Provider;
using std::chrono::milliseconds;
using std::chrono::seconds;

/// Answers no removal and no listing, and keeps what tells whether the caller still waits.
class SilentProvider : public InMemoryExtension {
 public:
  using InMemoryExtension::InMemoryExtension;

  std::shared_ptr<NSProgress> deleteItem(const NSFileProviderItemIdentifier&,
                                         const NSFileProviderItemVersion&,
                                         NSFileProviderDeleteItemOptions,
                                         const NSFileProviderRequest&,
                                         DeleteCompletion completionHandler) override {
    callers.push_back(Abandonment::current());
    completions.push_back(std::move(completionHandler));
    return std::make_shared<NSProgress>();
  }

  std::vector<std::shared_ptr<Abandonment>> callers;
  std::vector<DeleteCompletion> completions;
};

class AbandonedCallsTest : public testing::Test {
 protected:
  AbandonedCallsTest() { calls.setExtension(provider); }
  ~AbandonedCallsTest() override {
    calls.stop();
    loop.runUntilIdle();
  }

  void remove() {
    scope.spawn([](AbandonedCallsTest* test) -> Task<void> {
      std::int64_t code = 0;
      try {
        auto taken = test->calls.turn(false);
        auto turn = co_await std::move(taken);
        auto removal = test->calls.remove(std::move(turn), "/a", {}, false);
        co_await std::move(removal);
      } catch (const NSError& error) {
        code = error.code();
      }
      test->codes.push_back(code);
    }(this));
    loop.runUntilIdle();
  }

  TemporaryDirectory directory;
  SimulatedLoop loop;
  std::shared_ptr<SilentProvider> provider =
      std::make_shared<SilentProvider>(loop, directory.path(), std::make_shared<MemoryServer>());
  async::Scope scope{loop};
  Provider calls{scope, {.metadata = 1}, replica::remote::IdentifierForm::paths()};
  std::vector<std::int64_t> codes;
};

TEST_F(AbandonedCallsTest, CallThatIsGivenUpIsAbandoned) {
  remove();
  ASSERT_EQ(provider->callers.size(), 1u);
  ASSERT_NE(provider->callers[0], nullptr);
  loop.advance(seconds(89));
  EXPECT_FALSE(provider->callers[0]->isDeclared());
  EXPECT_TRUE(codes.empty());
  loop.advance(seconds(1));
  EXPECT_TRUE(provider->callers[0]->isDeclared());
  EXPECT_EQ(codes, std::vector<std::int64_t>{NSURLErrorTimedOut});
}

TEST_F(AbandonedCallsTest, CallThatWaitsForItsTurnIsNotAbandonedWithTheOneBefore) {
  remove();
  remove();
  ASSERT_EQ(provider->callers.size(), 1u);
  loop.advance(seconds(90));
  ASSERT_EQ(provider->callers.size(), 2u);
  EXPECT_TRUE(provider->callers[0]->isDeclared());
  EXPECT_FALSE(provider->callers[1]->isDeclared());
}

TEST_F(AbandonedCallsTest, CallThatWasAnsweredIsNotAbandoned) {
  remove();
  provider->completions.at(0)({});
  loop.advance(seconds(100));
  EXPECT_EQ(codes, std::vector<std::int64_t>{0});
  EXPECT_FALSE(provider->callers.at(0)->isDeclared());
  calls.stop();
  EXPECT_FALSE(provider->callers.at(0)->isDeclared());
}

TEST_F(AbandonedCallsTest, StopAbandonsWhatIsUnderWay) {
  remove();
  calls.stop();
  loop.runUntilIdle();
  EXPECT_TRUE(provider->callers.at(0)->isDeclared());
  EXPECT_EQ(codes, std::vector<std::int64_t>{NSURLErrorCancelled});
}

TEST_F(AbandonedCallsTest, CallsOfOthersInTheProviderAreNotAbandoned) {
  remove();
  EXPECT_EQ(Abandonment::current(), nullptr);
}

}  // namespace
}  // namespace kestrowan::test
