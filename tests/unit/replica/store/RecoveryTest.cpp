#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSString.h"
#include "replica/store/ContentFiles.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::replica {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::int64_t kMoment = 1769860800;  // 2026-01-31 12:00:00 UTC
constexpr std::int64_t kPlenty = INT64_MAX;

class RecoveryTest : public ::testing::Test {
 protected:
  /// Makes contents and moves them to the recovery area; gives their new name.
  std::string recovered(std::string_view name, std::int64_t at, std::string_view bytes = "bytes") {
    const auto number = ++last_;
    std::ofstream(store_.path(number), std::ios::binary) << bytes;
    const auto path = store_.recover(number, name, at);
    EXPECT_EQ(fs::path(path).parent_path(), recovery());
    std::ostringstream found;
    found << std::ifstream(path, std::ios::binary).rdbuf();
    EXPECT_EQ(found.str(), bytes);
    return fs::path(path).filename();
  }
  std::string recovery() const { return directory_.path() + "/recovery"; }
  std::set<std::string> names() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(recovery())) {
      names.insert(entry.path().filename());
    }
    return names;
  }

  test::TemporaryDirectory directory_;
  ContentFiles store_{directory_.path()};
  ContentNumber last_ = 1;
};

TEST_F(RecoveryTest, MovesContentsUnderTheirTimeAndName) {
  EXPECT_EQ(recovered("report.txt", kMoment), "2026-01-31T12-00-00Z report.txt");
  EXPECT_THAT(store_.numbers(), IsEmpty());
}

TEST_F(RecoveryTest, KeepsFilesOfTheSameNameAndTimeApart) {
  recovered("report.txt", kMoment, "first");
  recovered("report.txt", kMoment, "second");
  recovered("report.txt", kMoment, "third");
  EXPECT_THAT(names(), ElementsAre("2026-01-31T12-00-00Z report (2).txt",
                                   "2026-01-31T12-00-00Z report (3).txt",
                                   "2026-01-31T12-00-00Z report.txt"));
}

TEST_F(RecoveryTest, TakesOfALongNameWhatTheFileSystemTakes) {
  for (int i = 0; i < 2; ++i) {
    std::string name;
    while (name.size() < 250) name += "\xC3\xA4";
    const auto result = recovered(name + ".txt", kMoment);
    EXPECT_LE(result.size(), 255u);
    EXPECT_GE(result.size(), 253u);
    EXPECT_TRUE(result.ends_with(i == 0 ? "\xC3\xA4.txt" : "\xC3\xA4 (2).txt")) << result;
    EXPECT_TRUE(isValidUTF8(result));
  }
}

TEST_F(RecoveryTest, StaysInItsDirectoryWhateverTheName) {
  for (const auto& name : {"../../etc/passwd"s, ".."s, "."s, ""s, "/"s, "a\0b"s, "\xFF\xFE"s}) {
    recovered(name, kMoment);
  }
  EXPECT_EQ(names().size(), 7u);
  EXPECT_TRUE(names().contains("2026-01-31T12-00-00Z unnamed"));
  EXPECT_TRUE(names().contains("2026-01-31T12-00-00Z .._.._etc_passwd"));
}

TEST_F(RecoveryTest, TakesAnyTime) {
  EXPECT_EQ(recovered("a", -5), "1970-01-01T00-00-00Z a");
  EXPECT_EQ(recovered("a", INT64_MAX), "9999-12-31T23-59-59Z a");
}

TEST_F(RecoveryTest, ContentsThatAreNotThereCannotBeRecovered) {
  try {
    store_.recover(77, "a", kMoment);
    ADD_FAILURE();
  } catch (const NSError& error) {
    EXPECT_TRUE(error.is(NSPOSIXErrorDomain, ENOENT));
  }
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(RecoveryTest, CountsFilesAndBytes) {
  EXPECT_EQ(store_.recoveryUsage().files, 0);
  recovered("a", kMoment, "12345");
  recovered("b", kMoment, "");
  recovered("c", kMoment, "123");
  EXPECT_EQ(store_.recoveryUsage().files, 3);
  EXPECT_EQ(store_.recoveryUsage().bytes, 8);
}

TEST_F(RecoveryTest, TrimmingRemovesTheOldestFilesBeyondTheLimit) {
  recovered("middle", kMoment + 5, "1234");
  recovered("oldest", kMoment, "1");
  recovered("newest", kMoment + 9, "1234");
  store_.trimRecovery(8, 0);
  EXPECT_THAT(names(), ElementsAre("2026-01-31T12-00-05Z middle", "2026-01-31T12-00-09Z newest"));
  store_.trimRecovery(7, 0);
  EXPECT_THAT(names(), ElementsAre("2026-01-31T12-00-09Z newest"));
  store_.trimRecovery(0, 0);
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(RecoveryTest, AnOlderFileIsNotKeptInPlaceOfALargeNewerOne) {
  recovered("small", kMoment, "1");
  recovered("large", kMoment + 1, "1234567890");
  store_.trimRecovery(5, 0);
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(RecoveryTest, TrimmingRemovesFilesFromBeforeATime) {
  recovered("a", kMoment);
  recovered("b", kMoment + 1);
  store_.trimRecovery(kPlenty, kMoment + 1);
  EXPECT_THAT(names(), ElementsAre("2026-01-31T12-00-01Z b"));
}

TEST_F(RecoveryTest, LeavesAloneWhatItDidNotPutThere) {
  std::ofstream(recovery() + "/mine.txt") << "kept";
  fs::create_directory(recovery() + "/2026-01-31T12-00-00Z folder");
  fs::create_symlink("/etc/hostname", recovery() + "/2026-01-31T12-00-00Z link");
  std::ofstream(recovery() + "/2026-01-31T12-00-00Z") << "kept";
  std::ofstream(recovery() + "/2026-99-31T12-00-00Z x") << "kept";
  store_.trimRecovery(0, kPlenty);
  EXPECT_EQ(names().size(), 5u);
  EXPECT_EQ(store_.recoveryUsage().files, 0);
}

}  // namespace
}  // namespace kestrowan::replica
