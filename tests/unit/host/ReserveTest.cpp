#include "host/Reserve.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "support/TemporaryDirectory.h"

namespace kestrowan::host {
namespace {

namespace fs = std::filesystem;

class ReserveTest : public testing::Test {
 protected:
  /// The room that the file holds, in bytes.
  long held() const {
    struct stat status {};
    return ::lstat(path_.c_str(), &status) == 0 ? status.st_blocks * 512 : 0;
  }

  test::TemporaryDirectory directory_;
  const std::string path_ = directory_.path() + "/reserve";
};

TEST_F(ReserveTest, HoldsRoomForTheUserAlone) {
  Reserve reserve(directory_.path());
  EXPECT_EQ(held(), 0);
  reserve.hold();
  EXPECT_GE(held(), Reserve::kSize);
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(ReserveTest, GivesItUpAndHoldsItAgain) {
  Reserve reserve(directory_.path());
  reserve.giveUp();
  reserve.hold();
  reserve.giveUp();
  EXPECT_FALSE(fs::exists(path_));
  reserve.hold();
  EXPECT_GE(held(), Reserve::kSize);
}

TEST_F(ReserveTest, HoldsItForTheNextHost) {
  { const Reserve reserve(directory_.path()); }
  EXPECT_GE(held(), Reserve::kSize);
}

TEST_F(ReserveTest, LeavesAloneWhatHasItsName) {
  std::ofstream(path_) << "text";
  Reserve(directory_.path()).hold();
  EXPECT_EQ(fs::file_size(path_), 4U);
}

TEST_F(ReserveTest, WithoutADirectoryNothingIsHeld) {
  Reserve reserve(directory_.path() + "/none");
  reserve.hold();
  reserve.giveUp();
  EXPECT_TRUE(fs::is_empty(directory_.path()));
}

/// A disk of its own, on which a test takes the room away.
class SmallDisk {
 public:
  explicit SmallDisk(const std::string& path) : path_(path) {
    isMounted_ = ::mount("small", path.c_str(), "tmpfs", 0, "size=1m") == 0;
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;
  ~SmallDisk() {
    if (isMounted_) ::umount2(path_.c_str(), MNT_DETACH);
  }
  bool isMounted() const { return isMounted_; }
  void fill() const {
    std::ofstream file(path_ + "/filler", std::ios::binary);
    while (file.write("x", 1).flush()) file << std::string(4095, 'x');
  }

 private:
  const std::string path_;
  bool isMounted_;
};

TEST_F(ReserveTest, OnAFullDiskIsTriedAgain) {
  const SmallDisk disk(directory_.path());
  if (!disk.isMounted()) GTEST_SKIP() << "no disk can be mounted here";
  Reserve reserve(directory_.path());
  disk.fill();
  reserve.hold();
  EXPECT_FALSE(fs::exists(path_));
  fs::remove(directory_.path() + "/filler");
  reserve.hold();
  EXPECT_GE(held(), Reserve::kSize);
}

TEST_F(ReserveTest, WhatIsGivenUpIsRoomOnAFullDisk) {
  const SmallDisk disk(directory_.path());
  if (!disk.isMounted()) GTEST_SKIP() << "no disk can be mounted here";
  Reserve reserve(directory_.path());
  reserve.hold();
  disk.fill();
  reserve.giveUp();
  std::ofstream file(directory_.path() + "/small");
  file << std::string(Reserve::kSize / 2, 'x') << std::flush;
  EXPECT_TRUE(file.good());
}

}  // namespace
}  // namespace kestrowan::host
