#include "replica/store/ContentFiles.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>

#include "platform/foundation/NSError.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::replica {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

std::string readFile(const std::string& path) {
  std::ostringstream bytes;
  bytes << std::ifstream(path, std::ios::binary).rdbuf();
  return bytes.str();
}

void writeFile(const std::string& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

struct stat statusOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status;
}

mode_t modeOf(const std::string& path) {
  return statusOf(path).st_mode & 07777;
}

/// The POSIX code that `action` throws; 0 when it throws nothing. The text must name a file.
std::int64_t errorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const NSError& error) {
    EXPECT_EQ(error.domain(), NSPOSIXErrorDomain);
    EXPECT_THAT(error.localizedDescription(), HasSubstr("/"));
    return error.code();
  }
  return 0;
}

class ContentFilesTest : public ::testing::Test {
 protected:
  void write(ContentNumber number, std::string_view bytes) {
    const auto file = store().create(number);
    EXPECT_EQ(::write(file.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  std::string read(ContentNumber number) { return readFile(store().path(number)); }
  ContentFiles& store() {
    if (!store_) store_.emplace(directory());
    return *store_;
  }
  const std::string& directory() const { return directory_.path(); }
  std::string contents() const { return directory() + "/contents"; }

  test::TemporaryDirectory directory_;
  std::optional<ContentFiles> store_;
};

TEST_F(ContentFilesTest, MakesItsDirectoriesForTheOwnerOnly) {
  store();
  for (const auto* name : {"contents", "temporary"}) {
    EXPECT_EQ(modeOf(directory() + "/" + name), 0700u) << name;
  }
  EXPECT_EQ(store().temporaryDirectory(), directory() + "/temporary");
}

TEST_F(ContentFilesTest, TakesAwayRightsThatOthersHaveInItsDirectories) {
  fs::create_directory(contents());
  ::chmod(contents().c_str(), 0755);
  store();
  EXPECT_EQ(modeOf(contents()), 0700u);
}

TEST_F(ContentFilesTest, RefusesALinkOrAFileInPlaceOfADirectory) {
  fs::create_directory(directory() + "/elsewhere");
  fs::create_directory_symlink(directory() + "/elsewhere", contents());
  EXPECT_EQ(errorOf([&] { store(); }), ENOTDIR);
  fs::remove(contents());
  writeFile(contents(), "");
  EXPECT_EQ(errorOf([&] { store(); }), ENOTDIR);
}

TEST_F(ContentFilesTest, FindsContentsAgain) {
  write(17, "bytes");
  store_.emplace(directory());
  EXPECT_EQ(read(17), "bytes");
  const auto file = store().open(17);
  ASSERT_EQ(::pwrite(file.get(), "B", 1, 0), 1);
  char byte = 0;
  ASSERT_EQ(::pread(file.get(), &byte, 1, 0), 1);
  EXPECT_EQ(read(17), "Bytes");
}

TEST_F(ContentFilesTest, ContentsAreForTheOwnerOnlyAndCloseInChildren) {
  const auto before = ::umask(0);
  const auto file = store().create(2);
  ::umask(before);
  EXPECT_EQ(modeOf(store().path(2)), 0600u);
  EXPECT_EQ(::fcntl(file.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(::fcntl(store().open(2).get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(ContentFilesTest, NeverReplacesContents) {
  write(2, "kept");
  writeFile(directory() + "/other", "other");
  EXPECT_EQ(errorOf([&] { store().create(2); }), EEXIST);
  EXPECT_EQ(errorOf([&] { store().clone(store().open(2).get(), 2); }), EEXIST);
  EXPECT_EQ(errorOf([&] { store().adopt(2, directory() + "/other"); }), EEXIST);
  EXPECT_EQ(read(2), "kept");
  EXPECT_EQ(readFile(directory() + "/other"), "other");
}

TEST_F(ContentFilesTest, OpeningWhatIsNotThereFails) {
  EXPECT_EQ(errorOf([&] { store().open(99); }), ENOENT);
}

TEST_F(ContentFilesTest, ASymbolicLinkAtAContentPathIsRefused) {
  const auto victim = directory() + "/victim";
  writeFile(victim, "untouched");
  fs::create_symlink(victim, store().path(5));
  EXPECT_EQ(errorOf([&] { store().open(5); }), ELOOP);
  EXPECT_EQ(errorOf([&] { store().create(5); }), EEXIST);
  store().remove(5);
  EXPECT_EQ(readFile(victim), "untouched");
  fs::create_symlink(directory() + "/absent", store().path(6));
  EXPECT_EQ(errorOf([&] { store().create(6); }), EEXIST);
  EXPECT_FALSE(fs::exists(directory() + "/absent"));
}

TEST_F(ContentFilesTest, WhatIsNoFileIsNotOpened) {
  ASSERT_EQ(::mkfifo(store().path(5).c_str(), 0600), 0);
  EXPECT_EQ(errorOf([&] { store().open(5); }), EINVAL);
  fs::create_directory(store().path(6));
  EXPECT_NE(errorOf([&] { store().open(6); }), 0);
}

TEST_F(ContentFilesTest, RemovesContentsAndMindsNoneThatAreNotThere) {
  write(2, "x");
  store().remove(2);
  store().remove(2);
  EXPECT_THAT(store().numbers(), IsEmpty());
}

TEST_F(ContentFilesTest, KnowsTheNumbersOfItsFilesAndNothingElse) {
  for (const ContentNumber number : {2ull, 30ull, 18446744073709551615ull}) write(number, "");
  for (const auto* name : {"0", "007", "12x", "-3", "x", " 4", "18446744073709551616"}) {
    writeFile(contents() + "/" + name, "");
  }
  EXPECT_THAT(store().numbers(), UnorderedElementsAre(2u, 30u, 18446744073709551615ull));
}

TEST_F(ContentFilesTest, AdoptsAFileByRenamingIt) {
  const auto file = store().temporaryDirectory() + "/download";
  writeFile(file, "fetched");
  ::chmod(file.c_str(), 0644);
  const auto inode = statusOf(file).st_ino;
  store().adopt(3, file);
  EXPECT_FALSE(fs::exists(file));
  EXPECT_EQ(read(3), "fetched");
  EXPECT_EQ(statusOf(store().path(3)).st_ino, inode);
  EXPECT_EQ(modeOf(store().path(3)), 0600u);
}

TEST_F(ContentFilesTest, AdoptsAFileOfAnotherFileSystem) {
  std::error_code error;
  if (!fs::is_directory("/dev/shm", error) ||
      statusOf("/dev/shm").st_dev == statusOf(directory()).st_dev) {
    GTEST_SKIP() << "/dev/shm is no file system of its own";
  }
  const test::TemporaryDirectory elsewhere("/dev/shm");
  const auto file = elsewhere.path() + "/download";
  std::string bytes;
  while (bytes.size() < 1'000'000) bytes += std::to_string(bytes.size()) + " ";
  writeFile(file, bytes);
  store().adopt(3, file);
  EXPECT_FALSE(fs::exists(file));
  EXPECT_EQ(read(3), bytes);
  EXPECT_EQ(modeOf(store().path(3)), 0600u);
}

TEST_F(ContentFilesTest, AFileWithASecondNameIsAdoptedAsACopy) {
  const auto file = directory() + "/download";
  writeFile(file, "fetched");
  fs::create_hard_link(file, directory() + "/second");
  store().adopt(3, file);
  writeFile(directory() + "/second", "changed");
  EXPECT_FALSE(fs::exists(file));
  EXPECT_EQ(read(3), "fetched");
}

TEST_F(ContentFilesTest, OnlyFilesAreAdopted) {
  writeFile(directory() + "/target", "x");
  fs::create_symlink(directory() + "/target", directory() + "/link");
  ASSERT_EQ(::mkfifo((directory() + "/fifo").c_str(), 0600), 0);
  EXPECT_EQ(errorOf([&] { store().adopt(3, directory() + "/link"); }), ELOOP);
  EXPECT_EQ(errorOf([&] { store().adopt(3, directory() + "/fifo"); }), EINVAL);
  EXPECT_EQ(errorOf([&] { store().adopt(3, contents()); }), EINVAL);
  EXPECT_EQ(errorOf([&] { store().adopt(3, directory() + "/absent"); }), ENOENT);
  EXPECT_THAT(store().numbers(), IsEmpty());
}

TEST_F(ContentFilesTest, ACloneIsACopyOfItsOwn) {
  std::string bytes;
  while (bytes.size() < 700'000) bytes += std::to_string(bytes.size()) + " ";
  write(2, bytes);
  const auto source = store().open(2);
  const auto copy = store().clone(source.get(), 3);
  ASSERT_EQ(::pwrite(source.get(), "changed", 7, 0), 7);
  EXPECT_EQ(read(3), bytes);
  ASSERT_EQ(::pwrite(copy.get(), "other", 5, 0), 5);
  EXPECT_EQ(read(2).substr(0, 7), "changed");
  EXPECT_EQ(modeOf(store().path(3)), 0600u);
}

TEST_F(ContentFilesTest, ACloneMayBeEmpty) {
  write(2, "");
  store().clone(store().open(2).get(), 3);
  EXPECT_EQ(statusOf(store().path(3)).st_size, 0);
}

TEST_F(ContentFilesTest, ACloneKeepsHoles) {
  constexpr off_t kMegabyte = 1 << 20;
  const auto source = store().create(2);
  ASSERT_EQ(::pwrite(source.get(), "begin", 5, 0), 5);
  ASSERT_EQ(::pwrite(source.get(), "middle", 6, 20 * kMegabyte), 6);
  ASSERT_EQ(::ftruncate(source.get(), 64 * kMegabyte), 0);
  const auto copy = store().clone(source.get(), 3);
  const auto sourceStatus = statusOf(store().path(2));
  const auto copyStatus = statusOf(store().path(3));
  EXPECT_EQ(copyStatus.st_size, 64 * kMegabyte);
  EXPECT_TRUE(read(2) == read(3));
  if (sourceStatus.st_blocks * 512 > kMegabyte) {
    GTEST_SKIP() << "the file system has no holes";
  }
  EXPECT_LE(copyStatus.st_blocks * 512, kMegabyte);
}

TEST_F(ContentFilesTest, AFileThatIsAHoleAltogetherIsCloned) {
  const auto source = store().create(2);
  ASSERT_EQ(::ftruncate(source.get(), 1'000'000), 0);
  store().clone(source.get(), 3);
  EXPECT_EQ(read(3), std::string(1'000'000, '\0'));
}

TEST_F(ContentFilesTest, ACloneIsCheapWhenLittleIsThereToCopy) {
  const auto source = store().create(2);
  ASSERT_EQ(::ftruncate(source.get(), std::int64_t{1} << 40), 0);
  ASSERT_EQ(::pwrite(source.get(), "bytes", 5, 0), 5);
  EXPECT_TRUE(store().cloneCheaply(source.get(), 3, *store().allocated(2)));
  EXPECT_EQ(store().sizeOf(3), std::int64_t{1} << 40);
  EXPECT_EQ(store().allocated(3), store().allocated(2));
}

TEST_F(ContentFilesTest, ACloneComesFromAnotherFileSystemToo) {
  std::error_code error;
  if (!fs::is_directory("/dev/shm", error) ||
      statusOf("/dev/shm").st_dev == statusOf(directory()).st_dev) {
    GTEST_SKIP() << "/dev/shm is no file system of its own";
  }
  const test::TemporaryDirectory elsewhere("/dev/shm");
  const auto file = elsewhere.path() + "/file";
  std::string bytes;
  while (bytes.size() < 700'000) bytes += std::to_string(bytes.size()) + " ";
  writeFile(file, bytes);
  fs::resize_file(file, 3'000'000);
  const UniqueFd source(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  store().clone(source.get(), 3);
  EXPECT_EQ(read(3), bytes + std::string(3'000'000 - bytes.size(), '\0'));
}

TEST_F(ContentFilesTest, ACloneThatFailsLeavesNothingBehind) {
  write(2, "bytes");
  const UniqueFd unreadable(::open(store().path(2).c_str(), O_WRONLY | O_CLOEXEC));
  EXPECT_NE(errorOf([&] { store().clone(unreadable.get(), 3); }), 0);
  EXPECT_THAT(store().numbers(), UnorderedElementsAre(2u));
}

TEST_F(ContentFilesTest, EmptiesTheTemporaryDirectoryAtTheStart) {
  const auto temporary = store().temporaryDirectory();
  const auto outside = directory() + "/outside";
  fs::create_directory(outside);
  writeFile(outside + "/file", "kept");
  writeFile(temporary + "/left over", "x");
  fs::create_directories(temporary + "/folder/inner");
  writeFile(temporary + "/folder/inner/file", "x");
  fs::create_directory_symlink(outside, temporary + "/link");
  write(2, "kept");
  store_.emplace(directory());
  EXPECT_TRUE(fs::is_empty(temporary));
  EXPECT_EQ(readFile(outside + "/file"), "kept");
  EXPECT_EQ(read(2), "kept");
}

TEST_F(ContentFilesTest, SweepsWhatWasNotChangedLately) {
  const auto file = store().temporaryDirectory() + "/left over";
  writeFile(file, "x");
  const std::int64_t changed = statusOf(file).st_mtim.tv_sec;
  store().sweepTemporary(changed);
  EXPECT_TRUE(fs::exists(file));
  store().sweepTemporary(changed + 1);
  EXPECT_FALSE(fs::exists(file));
}

TEST_F(ContentFilesTest, AFileThatOnlyBearsAnOldDateIsNotSwept) {
  const auto file = store().temporaryDirectory() + "/download";
  writeFile(file, "x");
  const std::int64_t made = statusOf(file).st_ctim.tv_sec;
  const timespec old[2] = {{1000, 0}, {1000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), old, 0), 0);
  store().sweepTemporary(made);
  EXPECT_TRUE(fs::exists(file));
}

TEST_F(ContentFilesTest, KnowsTheSpaceOfItsFileSystem) {
  const auto space = store().space();
  EXPECT_GT(space.capacity, 0);
  EXPECT_GE(space.free, 0);
  EXPECT_LE(space.free, space.capacity);
}

}  // namespace
}  // namespace kestrowan::replica
