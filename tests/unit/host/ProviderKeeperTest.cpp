#include "host/ProviderKeeper.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <new>
#include <string>

#include "extension/FileProviderExtension.h"
#include "support/RecordingLog.h"

namespace kestrowan::host {
namespace {

using namespace std::chrono_literals;

class ProviderKeeperTest : public testing::Test {
 protected:
  ProviderKeeper::Functions functions() {
    return {.make =
                [] {
                  return std::make_shared<FileProviderExtension>(NSFileProviderDomain{"a", "A"});
                },
            .use =
                [this](auto provider) {
                  const std::lock_guard lock(mutex_);
                  EXPECT_NE(provider, nullptr);
                  ++used_;
                  changed_.notify_all();
                },
            .isHeld =
                [this] {
                  const std::lock_guard lock(mutex_);
                  ++asked_;
                  changed_.notify_all();
                  return held_;
                }};
  }
  bool waitFor(const int& count, int least) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 60s, [&] { return count >= least; });
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  int used_ = 0;
  int tries_ = 0;
  int asked_ = 0;
  bool held_ = false;
};

TEST_F(ProviderKeeperTest, TheFirstProviderIsThereAtOnce) {
  ProviderKeeper keeper(functions(), 1h);
  keeper.start();
  EXPECT_EQ(used_, 1);
}

TEST_F(ProviderKeeperTest, AProviderThatCannotBeMadeIsTriedAgain) {
  const test::RecordingLog log;
  auto failing = functions();
  failing.make = [this, made = failing.make] {
    {
      const std::lock_guard lock(mutex_);
      if (++tries_ == 1) throw std::bad_alloc();
    }
    return made();
  };
  ProviderKeeper keeper(failing, 1ms);
  keeper.renew();
  ASSERT_TRUE(waitFor(used_, 1));
  ASSERT_FALSE(log.lines().empty());
  EXPECT_NE(log.lines()[0].find("the provider keeper"), std::string::npos);
}

TEST_F(ProviderKeeperTest, ANewOneIsMadeWhenToldTo) {
  ProviderKeeper keeper(functions(), 1h);
  keeper.start();
  keeper.renew();
  ASSERT_TRUE(waitFor(used_, 2));
  keeper.renew();
  ASSERT_TRUE(waitFor(used_, 3));
}

TEST_F(ProviderKeeperTest, ANewOneIsMadeAgainAndAgainWhileHeld) {
  held_ = true;
  const ProviderKeeper keeper(functions(), 1ms);
  EXPECT_TRUE(waitFor(used_, 4));
}

TEST_F(ProviderKeeperTest, OneThatWorksIsKept) {
  ProviderKeeper keeper(functions(), 1ms);
  keeper.start();
  ASSERT_TRUE(waitFor(asked_, 5));
  const std::lock_guard lock(mutex_);
  EXPECT_EQ(used_, 1);
}

TEST(ExtensionRefusals, AreThoseOfTheExtension) {
  const auto refuses = extensionRefusals();
  EXPECT_TRUE(refuses("/Home", ".hidden"));
  EXPECT_TRUE(refuses("/Home", "Apps"));
  EXPECT_TRUE(refuses("/Home/Apps", "new.txt"));
  EXPECT_TRUE(refuses("/Home/.hidden/deeper", "new.txt"));
  EXPECT_TRUE(refuses("/Home/Documents", ".."));
  EXPECT_TRUE(refuses("/Home/Documents", "a/b"));
  EXPECT_TRUE(refuses("/Home/Documents", ""));
  EXPECT_FALSE(refuses("/Home", "Documents"));
  EXPECT_FALSE(refuses("/Home/Documents", ".hidden"));
  EXPECT_FALSE(refuses("/Home/Documents", "Apps"));
  EXPECT_FALSE(refuses(std::string(NSFileProviderRootContainerItemIdentifier), "Apps"));
}

}  // namespace
}  // namespace kestrowan::host
