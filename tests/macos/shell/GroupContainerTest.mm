#include <memory>
#include <string>

#include "ShellTest.h"
#include "bridge/FPBridge.h"
#include "macos/GroupContainer.h"
#include "macos/PlatformSetup.h"

namespace {

using namespace kestrowan::test;

class GroupContainerTest : public ShellTest {
 protected:
  GroupContainerTest() { kestrowan::macos::setUpPlatform(); }
};

TEST_F(GroupContainerTest, ContainerIsThePlatforms) {
  const auto url = kestrowan::FPBridge::groupURL();
  ASSERT_TRUE(url);
  EXPECT_TRUE(url->isFileURL());
  EXPECT_EQ(url->path(), container());
  EXPECT_EQ(url->appendingPathComponent("x").path(), container() + "/x");
}

TEST_F(GroupContainerTest, NoContainerIsNone) {
  setGroupContainer({});
  EXPECT_FALSE(kestrowan::FPBridge::groupURL());
}

TEST_F(GroupContainerTest, TemporaryDirectoryIsThePlatformsWithoutATrailingSlash) {
  const auto path = kestrowan::NSFileManager::defaultManager()->temporaryDirectory().path();
  EXPECT_EQ(path, temporary());
}

TEST_F(GroupContainerTest, FilesAreHandledByTheOtherManager) {
  const auto files = kestrowan::NSFileManager::defaultManager();
  const auto at = kestrowan::NSURL::fileURLWithPath(temporary() + "/a");
  const auto to = kestrowan::NSURL::fileURLWithPath(temporary() + "/b");
  EXPECT_TRUE(files->createFile(at, "contents"));
  EXPECT_EQ(files->fileSize(at), 8);
  EXPECT_EQ(files->contents(at), "contents");
  files->moveItem(at, to);
  EXPECT_EQ(temporaryFiles(), std::vector<std::string>{"b"});
  files->removeItem(to);
  EXPECT_EQ(temporaryFiles().size(), 0u);
  EXPECT_EQ(files->maximumNameLength(kestrowan::NSURL::fileURLWithPath(temporary())), 255u);
}

}  // namespace
