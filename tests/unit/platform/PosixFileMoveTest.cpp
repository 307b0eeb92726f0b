#include "platform/linux/PosixFileMove.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "support/TemporaryDirectory.h"

namespace kestrowan {
namespace {

namespace fs = std::filesystem;

struct Way {
  std::string name;
  std::function<int(const std::string&, const std::string&)> move;
  friend std::ostream& operator<<(std::ostream& out, const Way& way) { return out << way.name; }
};

/// Every way of moving keeps the same promises.
class PosixFileMoveTest : public testing::TestWithParam<Way> {
 protected:
  int move(const std::string& from, const std::string& to) const {
    return GetParam().move(path(from), path(to));
  }
  std::string path(const std::string& name) const { return directory.path() + "/" + name; }
  void write(const std::string& name, const std::string& text) const {
    std::ofstream(path(name), std::ios::binary) << text;
  }
  std::string read(const std::string& name) const {
    std::ostringstream text;
    text << std::ifstream(path(name), std::ios::binary).rdbuf();
    return text.str();
  }

  test::TemporaryDirectory directory;
};

TEST_P(PosixFileMoveTest, FileIsAtItsNewPlaceOnly) {
  const std::string text(300'000, 'x');
  write("a", text);
  EXPECT_EQ(move("a", "b"), 0);
  EXPECT_EQ(read("b"), text);
  EXPECT_FALSE(fs::exists(path("a")));
}

TEST_P(PosixFileMoveTest, PermissionsAndTimeGoWithTheFile) {
  write("a", "text");
  ASSERT_EQ(::chmod(path("a").c_str(), 0640), 0);
  const auto time = fs::file_time_type::clock::now() - std::chrono::hours(48);
  fs::last_write_time(path("a"), time);
  EXPECT_EQ(move("a", "b"), 0);
  EXPECT_EQ(fs::status(path("b")).permissions(), fs::perms(0640));
  EXPECT_EQ(fs::last_write_time(path("b")), time);
}

TEST_P(PosixFileMoveTest, ExistingDestinationIsNeverReplaced) {
  write("a", "new");
  write("b", "old");
  fs::create_directory(path("c"));
  fs::create_symlink("nowhere", path("d"));
  for (const auto* to : {"b", "c", "d"}) EXPECT_EQ(move("a", to), EEXIST) << to;
  EXPECT_EQ(read("a"), "new");
  EXPECT_EQ(read("b"), "old");
  EXPECT_TRUE(fs::is_symlink(path("d")));
}

TEST_P(PosixFileMoveTest, MissingSourceMakesNothing) {
  EXPECT_EQ(move("absent", "b"), ENOENT);
  EXPECT_FALSE(fs::exists(path("b")));
}

TEST_P(PosixFileMoveTest, MissingFolderLeavesTheSource) {
  write("a", "text");
  EXPECT_EQ(move("a", "absent/b"), ENOENT);
  EXPECT_EQ(read("a"), "text");
}

TEST_P(PosixFileMoveTest, NameThatIsTooLongLeavesTheSource) {
  write("a", "text");
  EXPECT_EQ(move("a", std::string(300, 'n')), ENAMETOOLONG);
  EXPECT_EQ(read("a"), "text");
}

INSTANTIATE_TEST_SUITE_P(EveryWay, PosixFileMoveTest,
                         testing::Values(Way{"Exclusively", moveFileExclusively},
                                         Way{"ByLink", moveFileByLink},
                                         Way{"ByCopy", moveFileByCopy}),
                         [](const auto& way) { return way.param.name; });

TEST(PosixFileMoveByCopyTest, OnlyRegularFilesAreCopied) {
  const test::TemporaryDirectory directory;
  const auto link = directory.path() + "/link";
  const auto folder = directory.path() + "/folder";
  fs::create_symlink("/etc/hostname", link);
  fs::create_directory(folder);
  EXPECT_EQ(moveFileByCopy(link, directory.path() + "/b"), ELOOP);
  EXPECT_EQ(moveFileByCopy(folder, directory.path() + "/b"), EXDEV);
  EXPECT_FALSE(fs::exists(directory.path() + "/b"));
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_TRUE(fs::is_directory(folder));
}

TEST(PosixFileMoveByCopyTest, CopyThatDoesNotFitLeavesNothing) {
  const test::TemporaryDirectory directory;
  const auto from = directory.path() + "/a";
  std::ofstream(from) << std::string(5000, 'x');
  rlimit old;
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
  const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit small = {1000, old.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  const int error = moveFileByCopy(from, directory.path() + "/b");
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
  std::signal(SIGXFSZ, oldHandler);
  EXPECT_EQ(error, EFBIG);
  EXPECT_EQ(fs::file_size(from), 5000U);
  EXPECT_FALSE(fs::exists(directory.path() + "/b"));
}

TEST(PosixFileMoveAcrossFileSystemsTest, FileIsCopiedAndTheSourceGoes) {
  const test::TemporaryDirectory here;
  struct stat a;
  struct stat b;
  ASSERT_EQ(::stat(here.path().c_str(), &a), 0);
  if (::stat("/dev/shm", &b) != 0 || a.st_dev == b.st_dev) {
    GTEST_SKIP() << "/dev/shm is no file system of its own";
  }
  const test::TemporaryDirectory there("/dev/shm");
  std::ofstream(here.path() + "/a") << "text";
  EXPECT_EQ(moveFileExclusively(here.path() + "/a", there.path() + "/a"), 0);
  EXPECT_TRUE(fs::exists(there.path() + "/a"));
  EXPECT_FALSE(fs::exists(here.path() + "/a"));
  EXPECT_EQ(moveFileExclusively(there.path() + "/a", here.path() + "/a"), 0);
  EXPECT_TRUE(fs::exists(here.path() + "/a"));
}

}  // namespace
}  // namespace kestrowan
