#include "host/HostFileManager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "ScopedVariable.h"
#include "bridge/FPBridge.h"
#include "host/DomainChoice.h"
#include "platform/foundation/NSError.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::host {
namespace {

namespace fs = std::filesystem;

constexpr auto kBridgeText = R"({"port":1,"user":"u","pass":"p","certPEM":"c"})";

class HostFileManagerTest : public testing::Test {
 protected:
  HostFileManagerTest() {
    write(container_.path() + "/fp-webdav.json", kBridgeText);
    NSFileManager::setDefaultManager(std::make_shared<HostFileManager>(
        NSFileManager::defaultManager(), temporaryDirectoryIn(state_.path()),
        withoutLinks(container_.path())));
  }
  ~HostFileManagerTest() override { NSFileManager::setDefaultManager(nullptr); }

  static void write(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
  }
  static bool isConfigured() {
    try {
      FPBridge::loadConfig();
      return true;
    } catch (const NSError&) {
      return false;
    }
  }

  test::TemporaryDirectory container_;
  test::TemporaryDirectory state_;
  const ScopedVariable variable_{"KESTROWAN_CONTAINER", container_.path()};
};

TEST_F(HostFileManagerTest, TemporaryFilesLieInTheStateDirectory) {
  EXPECT_EQ(NSFileManager::defaultManager()->temporaryDirectory().path(),
            state_.path() + "/temporary");
}

TEST_F(HostFileManagerTest, DownloadsLeaveAGibibyteFree) {
  EXPECT_EQ(NSFileManager::defaultManager()->reservedCapacity(), 0) << "there is no such folder";
  fs::create_directory(state_.path() + "/temporary");
  EXPECT_GE(NSFileManager::defaultManager()->reservedCapacity(), std::int64_t{1} << 30);
}

TEST_F(HostFileManagerTest, AContainerThatBecameALinkIsNone) {
  const auto place = container_.path() + "-moved";
  fs::rename(container_.path(), place);
  fs::create_directory_symlink(place, container_.path());
  EXPECT_FALSE(isConfigured());
  fs::remove(container_.path());
  EXPECT_FALSE(isConfigured());
  fs::rename(place, container_.path());
  EXPECT_TRUE(isConfigured());
}

TEST_F(HostFileManagerTest, ABridgeFileOfTheUsersOwnIsRead) {
  EXPECT_TRUE(isConfigured());
}

TEST_F(HostFileManagerTest, AContainerThatOthersMayWriteInIsNone) {
  ::chmod(container_.path().c_str(), 0770);
  EXPECT_EQ(FPBridge::groupURL(), std::nullopt);
  EXPECT_FALSE(isConfigured());
  ::chmod(container_.path().c_str(), 0700);
  EXPECT_TRUE(isConfigured());
}

TEST_F(HostFileManagerTest, ABridgeFileThatIsALinkIsNotRead) {
  const auto file = container_.path() + "/fp-webdav.json";
  fs::rename(file, state_.path() + "/elsewhere.json");
  fs::create_symlink(state_.path() + "/elsewhere.json", file);
  EXPECT_FALSE(isConfigured());
}

TEST_F(HostFileManagerTest, SomebodyElsesBridgeFileIsNotRead) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  ASSERT_EQ(::chown((container_.path() + "/fp-webdav.json").c_str(), 65534, 65534), 0);
  EXPECT_FALSE(isConfigured());
}

TEST_F(HostFileManagerTest, EverythingElseIsPassedOn) {
  auto files = NSFileManager::defaultManager();
  const auto url = [&](const std::string& name) {
    return NSURL::fileURLWithPath(state_.path() + "/" + name);
  };
  EXPECT_TRUE(files->createFile(url("a"), "text"));
  EXPECT_EQ(files->contents(url("a")), "text");
  EXPECT_EQ(files->fileSize(url("a")), 4);
  files->moveItem(url("a"), url("b"));
  EXPECT_EQ(files->fileSize(url("a")), std::nullopt);
  files->removeItem(url("b"));
  EXPECT_EQ(files->fileSize(url("b")), std::nullopt);
  EXPECT_EQ(files->maximumNameLength(url("")), 255U);
}

}  // namespace
}  // namespace kestrowan::host
