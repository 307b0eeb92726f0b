#include "replica/store/UseMark.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "StoreSupport.h"
#include "platform/foundation/NSError.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::replica {
namespace {

namespace fs = std::filesystem;
using store::bytesOf;
using store::writeFile;

class UseMarkTest : public testing::Test {
 protected:
  UseMark mark() const { return UseMark(directory_.path()); }
  std::string file() const { return directory_.path() + "/in-use"; }
  ino_t number() const {
    struct stat status;
    return ::stat(file().c_str(), &status) == 0 ? status.st_ino : 0;
  }

  const test::TemporaryDirectory directory_;
};

TEST_F(UseMarkTest, ANewReplicaWasUsedInNoRun) {
  EXPECT_FALSE(mark().machineStopped());
  EXPECT_FALSE(fs::exists(file())) << "reading marks nothing";
}

TEST_F(UseMarkTest, NamesTheRunInWhichTheReplicaIsUsed) {
  mark().set();
  EXPECT_EQ(bytesOf(file()), bytesOf("/proc/sys/kernel/random/boot_id"));
  EXPECT_EQ(fs::status(file()).permissions(), fs::perms(0600));
  EXPECT_FALSE(mark().machineStopped()) << "the process alone ended";
}

TEST_F(UseMarkTest, ABlankMarkIsOneThatWasCleared) {
  mark().set();
  mark().clear();
  EXPECT_EQ(bytesOf(file()).find_first_not_of(' '), std::string::npos);
  EXPECT_FALSE(bytesOf(file()).empty());
  EXPECT_FALSE(mark().machineStopped());
}

TEST_F(UseMarkTest, AMarkOfAnotherRunSaysThatTheMachineStopped) {
  writeFile(file(), "8d1f7c1e-7d39-4b4a-a7c2-2f0b6d0a7a11\n");
  EXPECT_TRUE(mark().machineStopped());
  mark().set();
  EXPECT_FALSE(mark().machineStopped());
}

TEST_F(UseMarkTest, AnEmptyMarkSaysThatTheMachineStopped) {
  writeFile(file(), "");
  EXPECT_TRUE(mark().machineStopped()) << "what was to be in it never came to the disk";
}

TEST_F(UseMarkTest, HalfOfABlankMarkIsBlank) {
  writeFile(file(), "   ");
  EXPECT_FALSE(mark().machineStopped());
}

TEST_F(UseMarkTest, HalfOfTheRunsNameSaysThatTheMachineStopped) {
  mark().set();
  const auto whole = bytesOf(file());
  writeFile(file(), whole.substr(0, 10) + std::string(whole.size() - 10, ' '));
  EXPECT_TRUE(mark().machineStopped());
}

TEST_F(UseMarkTest, IsWrittenInPlace) {
  mark().set();
  const auto before = number();
  const auto size = fs::file_size(file());
  mark().clear();
  EXPECT_EQ(number(), before);
  EXPECT_EQ(fs::file_size(file()), size);
  mark().set();
  EXPECT_EQ(number(), before);
  EXPECT_EQ(fs::file_size(file()), size);
}

TEST_F(UseMarkTest, ASymbolicLinkInItsPlaceIsRefused) {
  const auto victim = directory_.path() + "/victim";
  writeFile(victim, "precious");
  fs::create_symlink(victim, file());
  EXPECT_THROW(mark(), NSError);
  EXPECT_EQ(bytesOf(victim), "precious");
}

}  // namespace
}  // namespace kestrowan::replica
