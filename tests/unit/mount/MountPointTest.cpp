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

TEST_F(MountPointTest, TheFormerModeComesBack) {
  const auto bare = folder("bare");
  const auto state = folder("state");
  ASSERT_EQ(::chmod(bare.c_str(), 0751), 0);
  MountPoint point(bare, ::getuid(), state);
  point.open();
  point.seal();
  point.restore();
  EXPECT_EQ(mode(bare), 0751U);
  EXPECT_EQ(::rmdir(state.c_str()), 0) << "nothing is remembered any more";
}

TEST_F(MountPointTest, TheFormerModeComesBackAfterADeath) {
  const auto bare = folder("odd \n name");
  const auto state = folder("state");
  ASSERT_EQ(::chmod(bare.c_str(), 0755), 0);
  {
    MountPoint point(bare, ::getuid(), state);
    point.open();
    point.seal();
  }
  EXPECT_EQ(mode(bare), 0500U);
  restoreMountPoint(state);
  EXPECT_EQ(mode(bare), 0755U);
  // Once is enough.
  ASSERT_EQ(::chmod(bare.c_str(), 0500), 0);
  restoreMountPoint(state);
  EXPECT_EQ(mode(bare), 0500U);
}

TEST_F(MountPointTest, TheNextMountPointOfTheSameStateSeesToIt) {
  const auto bare = folder("bare");
  const auto state = folder("state");
  ASSERT_EQ(::chmod(bare.c_str(), 0755), 0);
  {
    MountPoint point(bare, ::getuid(), state);
    point.open();
    point.seal();
  }
  MountPoint again(bare, ::getuid(), state);
  again.open();
  again.seal();
  again.restore();
  EXPECT_EQ(mode(bare), 0755U);
}

TEST_F(MountPointTest, AModeThatSomebodyChangedMeanwhileAndAnotherFolderAreLeftAlone) {
  const auto bare = folder("bare");
  const auto state = folder("state");
  MountPoint point(bare, ::getuid(), state);
  point.open();
  point.seal();
  ASSERT_EQ(::chmod(bare.c_str(), 0711), 0);
  point.restore();
  EXPECT_EQ(mode(bare), 0711U);

  point.open();
  point.seal();
  ASSERT_EQ(::rmdir(bare.c_str()), 0);
  ASSERT_EQ(::mkdir(bare.c_str(), 0500), 0);
  restoreMountPoint(state);
  EXPECT_EQ(mode(bare), 0500U);
}

TEST_F(MountPointTest, WhatIsRememberedIsReadWithSuspicion) {
  const auto state = folder("state");
  for (const char* text : {"", "garbage", "1 2 755", "1 2 755\nrelative", "1 2 999\n/"}) {
    std::ofstream(state + "/mount-point") << text;
    restoreMountPoint(state);
  }
}

TEST_F(MountPointTest, AStateThatWouldBeHiddenIsRefused) {
  const auto outer = folder("outer");
  const auto inner = outer + "/not/there/yet";
  EXPECT_THROW(MountPoint::checkApart(outer, inner), NSError);
  EXPECT_THROW(MountPoint::checkApart(inner + "/below", inner), NSError);
  EXPECT_NO_THROW(MountPoint::checkApart(outer + "/a", outer + "/ab"));
  ASSERT_EQ(::symlink("outer", path("link").c_str()), 0);
  EXPECT_THROW(MountPoint::checkApart(path("link") + "/a/b", outer + "/a"), NSError);
}

}  // namespace
}  // namespace kestrowan::mount
