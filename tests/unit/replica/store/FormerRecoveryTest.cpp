#include "replica/store/FormerRecovery.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "support/TemporaryDirectory.h"

namespace kestrowan::replica {
namespace {

namespace fs = std::filesystem;
using ::testing::IsEmpty;

constexpr std::int64_t kMoment = 1769860800;  // 2026-01-31 12:00:00 UTC

class FormerRecoveryTest : public ::testing::Test {
 protected:
  void put(const std::string& name, std::string_view bytes = "bytes") const {
    fs::create_directories((fs::path(recovery()) / name).parent_path());
    std::ofstream(recovery() + "/" + name, std::ios::binary) << bytes;
  }
  std::string recovery() const { return directory_.path() + "/recovery"; }
  /// By their place in the folder.
  std::map<std::string, FormerFile> files() const {
    std::map<std::string, FormerFile> files;
    for (auto& file : formerRecovery(directory_.path())) {
      files[file.path.substr(recovery().size() + 1)] = file;
    }
    return files;
  }

  test::TemporaryDirectory directory_;
};

TEST_F(FormerRecoveryTest, FilesHaveTheirTimeAndNameInTheirName) {
  put("2026-01-31T12-00-00Z report (2).txt", "12345");
  const auto file = files().at("2026-01-31T12-00-00Z report (2).txt");
  EXPECT_EQ(file.name, "report (2).txt");
  EXPECT_EQ(file.at, kMoment);
  EXPECT_EQ(file.size, 5);
  EXPECT_FALSE(file.isOfLostDatabase);
}

TEST_F(FormerRecoveryTest, FilesWithoutANameHaveNone) {
  put("2026-01-31T12-00-00Z unnamed");
  EXPECT_EQ(files().begin()->second.name, "");
}

TEST_F(FormerRecoveryTest, WhatAPersonPutThereIsTakenUnderItsName) {
  put("mine.txt");
  put("2026-99-31T12-00-00Z x");
  EXPECT_EQ(files().at("mine.txt").name, "mine.txt");
  EXPECT_EQ(files().at("2026-99-31T12-00-00Z x").name, "2026-99-31T12-00-00Z x");
}

TEST_F(FormerRecoveryTest, ContentsOfALostDatabaseHaveNoNames) {
  put("2026-01-31T12-00-00Z contents of a lost database/17");
  const auto file = files().at("2026-01-31T12-00-00Z contents of a lost database/17");
  EXPECT_EQ(file.name, "");
  EXPECT_EQ(file.at, kMoment);
  EXPECT_TRUE(file.isOfLostDatabase);
}

TEST_F(FormerRecoveryTest, LinksLeadNowhere) {
  put("kept");
  fs::create_symlink("/etc/hostname", recovery() + "/2026-01-31T12-00-00Z link");
  fs::create_directory_symlink("/etc", recovery() + "/2026-01-31T12-00-00Z folder");
  EXPECT_EQ(files().size(), 1u);
  fs::remove(recovery() + "/kept");
  removeFormerRecovery(directory_.path());
  EXPECT_TRUE(fs::is_symlink(recovery() + "/2026-01-31T12-00-00Z link"));
  fs::remove_all(recovery());
  fs::create_directory_symlink("/etc", recovery());
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(FormerRecoveryTest, AnEmptyFolderGoes) {
  EXPECT_THAT(files(), IsEmpty());
  fs::create_directories(recovery() + "/2026-01-31T12-00-00Z contents of a lost database");
  EXPECT_THAT(files(), IsEmpty());
  removeFormerRecovery(directory_.path());
  EXPECT_FALSE(fs::exists(recovery()));
}

}  // namespace
}  // namespace kestrowan::replica
