#include "host/BridgeWatch.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <new>
#include <utility>

#include "support/RecordingLog.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::host {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr auto kLongest = 60s;

class BridgeWatchTest : public testing::Test {
 protected:
  /// Looks so rarely that only events can be what it notices.
  std::unique_ptr<BridgeWatch> watchByEvents(std::chrono::milliseconds debounce = 1ms) {
    return watch({debounce, 1h});
  }
  std::unique_ptr<BridgeWatch> watch(BridgeWatch::Times times) {
    return std::make_unique<BridgeWatch>(
        [this]() -> std::optional<std::string> {
          if (!fs::is_directory(container_)) return std::nullopt;
          return container_;
        },
        [this] {
          const std::lock_guard lock(mutex_);
          if (std::exchange(throwsOnce_, false)) throw std::bad_alloc();
          ++changes_;
          changed_.notify_all();
        },
        times);
  }
  bool waitForChanges(int count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kLongest, [&] { return changes_ >= count; });
  }
  int changes() {
    const std::lock_guard lock(mutex_);
    return changes_;
  }
  void write(const std::string& name, const std::string& text) const {
    std::ofstream(container_ + "/" + name) << text;
  }
  /// As the host application does it.
  void replaceBridgeFile(const std::string& text) const {
    write("new", text);
    fs::rename(container_ + "/new", bridge_);
  }

  test::TemporaryDirectory directory_;
  const std::string container_ = directory_.path() + "/container";
  const std::string bridge_ = container_ + "/fp-webdav.json";
  std::mutex mutex_;
  std::condition_variable changed_;
  int changes_ = 0;
  bool throwsOnce_ = false;
};

TEST_F(BridgeWatchTest, AChangeThatCouldNotBeReportedIsReportedAtTheNextLook) {
  const test::RecordingLog log;
  fs::create_directory(container_);
  throwsOnce_ = true;
  const auto watching = watch({1ms, 1ms});
  replaceBridgeFile("one");
  ASSERT_TRUE(waitForChanges(1));
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_NE(log.lines()[0].find("the bridge watch"), std::string::npos);
}

TEST_F(BridgeWatchTest, NoticesTheFileAppearingChangingAndGoing) {
  fs::create_directory(container_);
  const auto watching = watchByEvents();
  replaceBridgeFile("one");
  ASSERT_TRUE(waitForChanges(1));
  replaceBridgeFile("two");
  ASSERT_TRUE(waitForChanges(2));
  write("fp-webdav.json", "written in place");
  ASSERT_TRUE(waitForChanges(3));
  fs::remove(bridge_);
  ASSERT_TRUE(waitForChanges(4));
}

TEST_F(BridgeWatchTest, NoticesThatAFolderAboveTheContainerCanBeTrustedNoMore) {
  fs::create_directory(container_);
  write("fp-webdav.json", "one");
  const auto watching = watch({1ms, 1ms});
  ::chmod(directory_.path().c_str(), 0777);
  EXPECT_TRUE(waitForChanges(1));
  ::chmod(directory_.path().c_str(), 0700);
  EXPECT_TRUE(waitForChanges(2));
}

TEST_F(BridgeWatchTest, NoticesThatPermissionsChanged) {
  fs::create_directory(container_);
  write("fp-webdav.json", "one");
  const auto watching = watchByEvents();
  ::chmod(bridge_.c_str(), 0604);
  ASSERT_TRUE(waitForChanges(1));
  ::chmod(container_.c_str(), 0777);
  ASSERT_TRUE(waitForChanges(2));
}

TEST_F(BridgeWatchTest, OtherFilesOfTheContainerAreNoChange) {
  fs::create_directory(container_);
  write("fp-webdav.json", "one");
  const auto watching = watchByEvents();
  write("other", "x");
  fs::remove(container_ + "/other");
  // What came before the change that it notices has been seen by then.
  replaceBridgeFile("two");
  ASSERT_TRUE(waitForChanges(1));
  EXPECT_EQ(changes(), 1);
}

TEST_F(BridgeWatchTest, ABurstIsOneChange) {
  fs::create_directory(container_);
  const auto watching = watchByEvents(500ms);
  for (int i = 0; i < 20; ++i) replaceBridgeFile(std::to_string(i));
  ASSERT_TRUE(waitForChanges(1));
  EXPECT_EQ(changes(), 1);
}

TEST_F(BridgeWatchTest, NoticesAContainerThatIsMadeLater) {
  const auto watching = watch({1ms, 10ms});
  fs::create_directory(container_);
  ASSERT_TRUE(waitForChanges(1));
  replaceBridgeFile("one");
  ASSERT_TRUE(waitForChanges(2));
}

TEST_F(BridgeWatchTest, NoticesAnotherContainerInTheSamePlace) {
  fs::create_directory(container_);
  replaceBridgeFile("one");
  const auto watching = watchByEvents();
  fs::rename(container_, directory_.path() + "/old");
  ASSERT_TRUE(waitForChanges(1));
}

TEST_F(BridgeWatchTest, FollowsAContainerThatWasReplaced) {
  fs::create_directory(container_);
  replaceBridgeFile("one");
  const auto watching = watch({1ms, 10ms});
  fs::rename(container_, directory_.path() + "/old");
  ASSERT_TRUE(waitForChanges(1));
  fs::create_directory(container_);
  ASSERT_TRUE(waitForChanges(2));
  replaceBridgeFile("two");
  ASSERT_TRUE(waitForChanges(3));
}

TEST_F(BridgeWatchTest, EndsAtOnceWhileItWaits) {
  fs::create_directory(container_);
  watchByEvents().reset();
  EXPECT_EQ(changes(), 0);
}

}  // namespace
}  // namespace kestrowan::host
