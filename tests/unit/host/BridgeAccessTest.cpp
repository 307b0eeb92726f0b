#include "host/BridgeAccess.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/foundation/NSError.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::host {
namespace {

namespace fs = std::filesystem;

class BridgeAccessTest : public testing::Test {
 protected:
  BridgeAccessTest() {
    std::ofstream(bridge_) << "{}";
    ::chmod(bridge_.c_str(), 0600);
  }
  test::TemporaryDirectory directory_;
  const std::string container_ = directory_.path();
  const std::string bridge_ = container_ + "/fp-webdav.json";
};

TEST_F(BridgeAccessTest, AContainerOfTheUsersOwnIsSafe) {
  EXPECT_EQ(containerRefusal(container_), std::nullopt);
  ::chmod(container_.c_str(), 0755);
  EXPECT_EQ(containerRefusal(container_), std::nullopt);
  EXPECT_EQ(bridgeWarning(container_), std::nullopt);
}

TEST_F(BridgeAccessTest, OneThatOthersMayWriteInIsNot) {
  for (const mode_t mode : {0720U, 0702U, 01777U}) {
    ::chmod(container_.c_str(), mode);
    ASSERT_TRUE(containerRefusal(container_));
    EXPECT_TRUE(containerRefusal(container_)->starts_with(container_ + ": others may write"));
    EXPECT_EQ(bridgeRefusal(container_), containerRefusal(container_));
    EXPECT_EQ(bridgeWarning(container_), containerRefusal(container_));
  }
}

TEST_F(BridgeAccessTest, SomebodyElsesIsNot) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a directory away";
  ASSERT_EQ(::chown(container_.c_str(), 65534, 65534), 0);
  ASSERT_TRUE(containerRefusal(container_));
  EXPECT_NE(containerRefusal(container_)->find("another user"), std::string::npos);
}

TEST_F(BridgeAccessTest, NothingAndAFileAreNoContainers) {
  EXPECT_TRUE(containerRefusal(container_ + "/missing"));
  EXPECT_TRUE(containerRefusal(bridge_));
  EXPECT_EQ(bridgeWarning(std::nullopt), std::nullopt);
}

TEST_F(BridgeAccessTest, APasswordThatOthersMayReadIsWarnedOf) {
  for (const mode_t mode : {0640U, 0604U}) {
    ::chmod(bridge_.c_str(), mode);
    ASSERT_TRUE(bridgeWarning(container_));
    EXPECT_NE(bridgeWarning(container_)->find("chmod 600"), std::string::npos);
    EXPECT_EQ(bridgeRefusal(container_), std::nullopt);
  }
}

TEST_F(BridgeAccessTest, ALinkInThePlaceOfTheBridgeFileIsRefused) {
  fs::rename(bridge_, container_ + "/real");
  fs::create_symlink("real", bridge_);
  ASSERT_TRUE(bridgeRefusal(container_));
  EXPECT_TRUE(bridgeRefusal(container_)->starts_with(bridge_ + ": is a symbolic link"));
  EXPECT_EQ(bridgeWarning(container_), bridgeRefusal(container_));
  EXPECT_THROW(openBridgeFile(bridge_), NSError);
}

TEST_F(BridgeAccessTest, SomebodyElsesBridgeFileIsRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  ASSERT_EQ(::chown(bridge_.c_str(), 65534, 65534), 0);
  ASSERT_TRUE(bridgeRefusal(container_));
  EXPECT_NE(bridgeRefusal(container_)->find("another user"), std::string::npos);
  EXPECT_THROW(openBridgeFile(bridge_), NSError);
}

TEST_F(BridgeAccessTest, AFileThatIsNotThereYetIsNoCauseForAWarning) {
  fs::remove(bridge_);
  EXPECT_EQ(bridgeRefusal(container_), std::nullopt);
  EXPECT_EQ(bridgeWarning(container_), std::nullopt);
}

}  // namespace
}  // namespace kestrowan::host
