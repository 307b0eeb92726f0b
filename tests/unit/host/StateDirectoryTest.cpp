#include "host/StateDirectory.h"

#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <optional>

#include "host/StorageNote.h"
#include "platform/foundation/NSError.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::host {
namespace {

namespace fs = std::filesystem;

class StateDirectoryTest : public testing::Test {
 protected:
  static mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
  }
  static std::optional<NSError> refusal(const std::string& path) {
    try {
      const StateDirectory state(path);
      return std::nullopt;
    } catch (const NSError& error) {
      return error;
    }
  }
  void expectRefused(const std::string& path, int code) {
    const auto error = refusal(path);
    ASSERT_TRUE(error);
    EXPECT_TRUE(error->is(NSPOSIXErrorDomain, code)) << error->localizedDescription();
  }

  test::TemporaryDirectory directory_;
  const std::string path_ = directory_.path() + "/a/b/state";
};

TEST_F(StateDirectoryTest, IsMadeWithItsParentsForTheUserAlone) {
  const StateDirectory state(path_);
  EXPECT_EQ(modeOf(path_), 0700U);
  EXPECT_EQ(modeOf(directory_.path() + "/a"), 0700U);
  EXPECT_EQ(modeOf(path_ + "/lock"), 0600U);
  EXPECT_FALSE(state.isRemote());
}

TEST_F(StateDirectoryTest, OneThatWasMadeAndNeverKeptIsRemoved) {
  {
    const StateDirectory state(path_);
    for (const char* folder : {"/contents", "/temporary"}) {
      fs::create_directory(path_ + folder);
    }
    for (const char* file : {"/replica.db", "/replica.db-wal", "/replica.db-shm"}) {
      std::ofstream(path_ + file) << "rows";
    }
    writeStorageNote(path_, "/srv/work", false);
  }
  EXPECT_FALSE(fs::exists(path_));
  EXPECT_TRUE(fs::exists(fs::path(path_).parent_path()));
}

TEST_F(StateDirectoryTest, OneThatHoldsSomethingStays) {
  {
    const StateDirectory state(path_);
    fs::create_directories(path_ + "/contents");
    std::ofstream(path_ + "/contents/1") << "precious";
    std::ofstream(path_ + "/replica.db") << "rows";
  }
  EXPECT_TRUE(fs::exists(path_ + "/contents/1"));
  EXPECT_TRUE(fs::exists(path_ + "/replica.db"));
}

TEST_F(StateDirectoryTest, OneThatWasThereOrWasKeptStays) {
  {
    StateDirectory state(path_);
    state.keep();
  }
  EXPECT_TRUE(fs::exists(path_ + "/lock"));
  { const StateDirectory state(path_); }
  EXPECT_TRUE(fs::exists(path_ + "/lock"));
}

TEST(RemoteFileSystem, IsToldByItsType) {
  for (const unsigned long type : {NFS_SUPER_MAGIC, SMB_SUPER_MAGIC, FUSE_SUPER_MAGIC}) {
    EXPECT_TRUE(isRemoteFileSystem(type));
  }
  EXPECT_TRUE(isRemoteFileSystem(CIFS_SUPER_MAGIC));
  EXPECT_TRUE(isRemoteFileSystem(SMB2_SUPER_MAGIC));
  for (const unsigned long type : {EXT4_SUPER_MAGIC, TMPFS_MAGIC, OVERLAYFS_SUPER_MAGIC}) {
    EXPECT_FALSE(isRemoteFileSystem(type));
  }
}

TEST_F(StateDirectoryTest, ASecondHostIsRefusedAndToldWhichProcessHoldsIt) {
  const StateDirectory state(path_);
  const auto error = refusal(path_);
  ASSERT_TRUE(error);
  EXPECT_TRUE(error->is(NSPOSIXErrorDomain, EBUSY));
  EXPECT_NE(error->localizedDescription().find("process " + std::to_string(::getpid())),
            std::string::npos)
      << error->localizedDescription();
}

TEST_F(StateDirectoryTest, CanBeHeldAgainOnceTheFirstHolderIsGone) {
  {
    StateDirectory state(path_);
    state.keep();
  }
  EXPECT_FALSE(refusal(path_));
}

TEST_F(StateDirectoryTest, TheLockOfAProcessThatWasKilledDoesNotStay) {
  const pid_t child = ::fork();
  if (child == 0) {
    const StateDirectory state(path_);
    ::kill(::getpid(), SIGKILL);
    ::_exit(1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_FALSE(refusal(path_));
}

TEST_F(StateDirectoryTest, OneThatOthersMayWriteInIsRefused) {
  fs::create_directories(path_);
  for (const mode_t mode : {0770U, 0702U}) {
    ::chmod(path_.c_str(), mode);
    expectRefused(path_, EACCES);
  }
}

TEST_F(StateDirectoryTest, OneBelowAFolderThatOthersMayWriteInIsRefusedAndTheFolderNamed) {
  fs::create_directories(path_);
  const auto above = directory_.path() + "/a";
  ::chmod(above.c_str(), 0777);
  const auto error = refusal(path_);
  ASSERT_TRUE(error);
  EXPECT_TRUE(error->is(NSPOSIXErrorDomain, EACCES));
  EXPECT_TRUE(error->localizedDescription().starts_with(above + ": others may write"))
      << error->localizedDescription();
  ::chmod(above.c_str(), 01777);
  EXPECT_FALSE(refusal(path_));
}

TEST_F(StateDirectoryTest, OneThatOthersMayReadIsClosedToThem) {
  fs::create_directories(path_);
  ::chmod(path_.c_str(), 0755);
  const StateDirectory state(path_);
  EXPECT_EQ(modeOf(path_), 0700U);
}

TEST_F(StateDirectoryTest, AFolderWithSomethingElseInItIsLeftAlone) {
  fs::create_directories(path_);
  ::chmod(path_.c_str(), 0755);
  std::ofstream(path_ + "/letter.txt") << "dear";
  expectRefused(path_, ENOTEMPTY);
  EXPECT_EQ(modeOf(path_), 0755U);
}

TEST_F(StateDirectoryTest, ASymbolicLinkInItsPlaceIsRefused) {
  fs::create_directories(directory_.path() + "/real");
  fs::create_directories(fs::path(path_).parent_path());
  fs::create_symlink(directory_.path() + "/real", path_);
  EXPECT_TRUE(refusal(path_));
  EXPECT_TRUE(fs::is_empty(directory_.path() + "/real"));
}

TEST_F(StateDirectoryTest, ALockFileThatIsALinkOrNoFileIsRefused) {
  fs::create_directories(path_);
  std::ofstream(directory_.path() + "/other") << "precious";
  fs::create_symlink(directory_.path() + "/other", path_ + "/lock");
  EXPECT_TRUE(refusal(path_));
  EXPECT_EQ(fs::file_size(directory_.path() + "/other"), 8U);

  fs::remove(path_ + "/lock");
  ASSERT_EQ(::mkfifo((path_ + "/lock").c_str(), 0600), 0);
  expectRefused(path_, EACCES);
}

TEST_F(StateDirectoryTest, ARelativePathIsRefused) {
  expectRefused("state", EINVAL);
}

TEST_F(StateDirectoryTest, SomebodyElsesDirectoryIsRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a directory away";
  fs::create_directories(path_);
  ASSERT_EQ(::chown(path_.c_str(), 65534, 65534), 0);
  expectRefused(path_, EACCES);
}

}  // namespace
}  // namespace kestrowan::host
