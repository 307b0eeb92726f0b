#include "host/BridgeAccess.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "mount/PathTrust.h"
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
  EXPECT_EQ(folderFault(container_), std::nullopt);
  ::chmod(container_.c_str(), 0755);
  EXPECT_EQ(folderFault(container_), std::nullopt);
  EXPECT_EQ(bridgeWarning(container_), std::nullopt);
}

TEST_F(BridgeAccessTest, OneThatOthersMayWriteInIsNot) {
  for (const mode_t mode : {0720U, 0702U, 01777U}) {
    ::chmod(container_.c_str(), mode);
    ASSERT_TRUE(folderFault(container_));
    EXPECT_TRUE(folderFault(container_)->starts_with(container_ + ": others may write"));
    EXPECT_EQ(bridgeRefusal(container_), folderFault(container_));
    EXPECT_EQ(bridgeWarning(container_), folderFault(container_));
  }
}

TEST_F(BridgeAccessTest, SomebodyElsesIsNot) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a directory away";
  ASSERT_EQ(::chown(container_.c_str(), 65534, 65534), 0);
  ASSERT_TRUE(folderFault(container_));
  EXPECT_NE(folderFault(container_)->find("another user"), std::string::npos);
}

TEST_F(BridgeAccessTest, NothingAndAFileAreNoContainers) {
  EXPECT_TRUE(folderFault(container_ + "/missing"));
  EXPECT_TRUE(folderFault(bridge_));
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

TEST_F(BridgeAccessTest, ABridgeFileThatOthersMayWriteIsRefused) {
  for (const mode_t mode : {0620U, 0602U, 0666U}) {
    ::chmod(bridge_.c_str(), mode);
    ASSERT_TRUE(bridgeRefusal(container_));
    EXPECT_TRUE(bridgeRefusal(container_)->starts_with(bridge_ + ": others may write"));
    EXPECT_NE(bridgeRefusal(container_)->find("chmod go-w '" + bridge_ + "'"), std::string::npos);
    EXPECT_EQ(bridgeWarning(container_), bridgeRefusal(container_));
    EXPECT_THROW(openBridgeFile(bridge_), NSError);
  }
  ::chmod(bridge_.c_str(), 0644);
  EXPECT_TRUE(openBridgeFile(bridge_));
}

TEST_F(BridgeAccessTest, ABridgeFileBelowAFolderThatOthersMayWriteInIsNotOpened) {
  const auto inner = container_ + "/inner";
  fs::create_directory(inner);
  fs::rename(bridge_, inner + "/fp-webdav.json");
  EXPECT_TRUE(openBridgeFile(inner + "/fp-webdav.json"));
  ::chmod(container_.c_str(), 0777);
  EXPECT_THROW(openBridgeFile(inner + "/fp-webdav.json"), NSError);
  ASSERT_TRUE(bridgeRefusal(inner));
  EXPECT_TRUE(bridgeRefusal(inner)->starts_with(container_ + ": others may write"));
  // As /tmp has it: what others put there they cannot put in the place of this.
  ::chmod(container_.c_str(), 01777);
  EXPECT_TRUE(openBridgeFile(inner + "/fp-webdav.json"));
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
