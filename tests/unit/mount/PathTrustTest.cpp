#include "mount/PathTrust.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "support/TemporaryDirectory.h"

namespace kestrowan {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kStranger = 65534;

class PathTrustTest : public testing::Test {
 protected:
  PathTrustTest() { fs::create_directories(folder_); }

  static void setMode(const std::string& path, mode_t mode) {
    ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
  }
  static void giveAway(const std::string& path) {
    ASSERT_EQ(::lchown(path.c_str(), kStranger, kStranger), 0) << path;
  }
  void expectFault(const std::string& path, const std::string& part, const std::string& words) {
    const auto fault = folderFault(path);
    ASSERT_TRUE(fault) << path;
    EXPECT_TRUE(fault->starts_with(part + ": ")) << *fault;
    EXPECT_NE(fault->find(words), std::string::npos) << *fault;
  }

  test::TemporaryDirectory directory_;
  const std::string base_ = fs::canonical(directory_.path());
  const std::string folder_ = base_ + "/home/data/folder";
};

TEST_F(PathTrustTest, AFolderBelowTheUsersOwnIsTrusted) {
  for (const mode_t mode : {0700U, 0755U, 0750U}) {
    setMode(base_ + "/home", mode);
    setMode(folder_, mode);
    EXPECT_EQ(folderFault(folder_), std::nullopt);
  }
}

TEST_F(PathTrustTest, EveryPartThatOthersMayWriteInIsAtFault) {
  for (const auto& part : {base_ + "/home", base_ + "/home/data", folder_}) {
    for (const mode_t mode : {0775U, 0757U, 0777U}) {
      setMode(part, mode);
      expectFault(folder_, part, "chmod go-w '" + part + "'");
    }
    setMode(part, 0755);
  }
}

TEST_F(PathTrustTest, TheStickyBitKeepsAPartOnTheWayButNotTheFolderItself) {
  setMode(base_ + "/home", 01777);
  EXPECT_EQ(folderFault(folder_), std::nullopt);
  setMode(folder_, 01777);
  expectFault(folder_, folder_, "others may write here");
}

TEST_F(PathTrustTest, APartOfAnotherUserIsAtFault) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a folder away";
  for (const auto& part : {base_ + "/home", base_ + "/home/data", folder_}) {
    giveAway(part);
    expectFault(folder_, part, "belongs to another user");
    ASSERT_EQ(::chown(part.c_str(), 0, 0), 0);
  }
}

TEST_F(PathTrustTest, WhatALinkLeadsToIsLookedAtPartByPart) {
  fs::create_directories(base_ + "/open/real/folder");
  fs::create_symlink(base_ + "/open/real", base_ + "/home/link");
  EXPECT_EQ(folderFault(base_ + "/home/link/folder"), std::nullopt);
  setMode(base_ + "/open", 0777);
  expectFault(base_ + "/home/link/folder", base_ + "/open", "others may write here");
  setMode(base_ + "/open", 0755);
  // The link itself could be exchanged.
  fs::create_symlink(base_ + "/home", base_ + "/open/back");
  setMode(base_ + "/open", 0777);
  expectFault(base_ + "/open/back/data/folder", base_ + "/open", "others may write here");
}

TEST_F(PathTrustTest, AnotherUsersLinkIsAtFaultAlsoWhereItCannotBeExchanged) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a link away";
  setMode(base_, 01777);
  fs::create_symlink(folder_, base_ + "/link");
  EXPECT_EQ(folderFault(base_ + "/link"), std::nullopt);
  giveAway(base_ + "/link");
  expectFault(base_ + "/link", base_ + "/link", "belongs to another user");
}

TEST_F(PathTrustTest, WhatIsNoFolderIsNamed) {
  std::ofstream(base_ + "/file") << "x";
  expectFault(base_ + "/file", base_ + "/file", "is no directory");
  expectFault(base_ + "/missing/folder", base_ + "/missing", "No such file");
  expectFault("relative", "relative", "no absolute path");
}

TEST_F(PathTrustTest, RootTrustsNoOtherUser) {
  const auto judge = trustedBy(0);
  PathWalk::Part part{"/home/kes", {}, {}};
  part.status.st_mode = S_IFDIR | 0755;
  part.status.st_uid = 1000;
  EXPECT_TRUE(judge(part));
  EXPECT_FALSE(trustedBy(1000)(part));
  part.status.st_uid = 0;
  EXPECT_FALSE(judge(part));
  EXPECT_FALSE(trustedBy(1000)(part));
  EXPECT_TRUE(othersMayWrite({.st_mode = S_IFDIR | 0720}));
}

}  // namespace
}  // namespace kestrowan
