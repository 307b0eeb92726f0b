#include "mount/MountPoint.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "platform/foundation/NSError.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::mount {
namespace {

class MountPointTest : public testing::Test {
 protected:
  std::string path(const std::string& name) const { return directory_.path() + "/" + name; }

  std::string folder(const std::string& name) const {
    EXPECT_EQ(::mkdir(path(name).c_str(), 0700), 0);
    return path(name);
  }

  /// The error that the mount point is refused with; 0 when it is not.
  static int refusal(const std::string& path, uid_t owner = ::getuid(),
                     const std::string& state = {}) {
    try {
      MountPoint(path, owner, state);
      return 0;
    } catch (const NSError& error) {
      EXPECT_EQ(error.domain(), NSPOSIXErrorDomain);
      EXPECT_NE(error.localizedDescription().find(path.substr(0, path.find_last_not_of('/') + 1)),
                std::string::npos)
          << error.localizedDescription();
      return static_cast<int>(error.code());
    }
  }

  static mode_t mode(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
  }

  test::TemporaryDirectory directory_;
};

TEST_F(MountPointTest, AnEmptyFolderOfOnesOwnIsTaken) {
  EXPECT_EQ(refusal(folder("empty")), 0);
}

TEST_F(MountPointTest, WhatIsMissingIsRefused) {
  EXPECT_EQ(refusal(path("missing")), ENOENT);
}

TEST_F(MountPointTest, AFileIsRefused) {
  std::ofstream(path("file")) << "text";
  EXPECT_EQ(refusal(path("file")), ENOTDIR);
}

TEST_F(MountPointTest, AFolderWithSomethingInItIsRefused) {
  folder("full");
  std::ofstream(path("full/.hidden")) << "text";
  EXPECT_EQ(refusal(path("full")), ENOTEMPTY);
}

TEST_F(MountPointTest, SomebodyElsesFolderIsRefused) {
  EXPECT_EQ(refusal(folder("mine"), ::getuid() + 1), EPERM);
}

TEST_F(MountPointTest, AnotherFileSystemsMountPointIsRefused) {
  EXPECT_EQ(refusal("/proc"), EBUSY);
}

TEST_F(MountPointTest, TheFolderOfTheStateIsRefused) {
  folder("state");
  folder("state/contents");
  folder("state-of-others");
  EXPECT_EQ(refusal(path("state"), ::getuid(), path("state")), EINVAL);
  EXPECT_EQ(refusal(path("state/contents"), ::getuid(), path("state")), EINVAL);
  EXPECT_EQ(refusal(path("state-of-others"), ::getuid(), path("state")), 0);
}

TEST_F(MountPointTest, LinksAreResolved) {
  folder("real");
  ASSERT_EQ(::symlink("real", path("link").c_str()), 0);
  EXPECT_EQ(MountPoint(path("link"), ::getuid(), {}).path(),
            MountPoint(path("real"), ::getuid(), {}).path());
}

TEST_F(MountPointTest, TheBareFolderCannotBeWrittenAfterwards) {
  const auto bare = folder("bare");
  MountPoint point(bare, ::getuid(), {});
  point.open();
  EXPECT_EQ(mode(bare), 0700U);
  point.seal();
  EXPECT_EQ(mode(bare), 0500U);
  EXPECT_EQ(refusal(bare), 0);
}

}  // namespace
}  // namespace kestrowan::mount
