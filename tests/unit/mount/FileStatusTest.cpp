#include "mount/FileStatus.h"

#include <gtest/gtest.h>

#include <limits>

namespace kestrowan::mount {
namespace {

replica::Attributes attributes(replica::ItemKind kind, std::uint16_t mode, std::int64_t size) {
  replica::Attributes made;
  made.rid = 42;
  made.kind = kind;
  made.mode = mode;
  made.size = size;
  made.modified = 1'700'000'000'123'456'789;
  return made;
}

TEST(FileStatusTest, AFileShowsItsSizeAndItsOwner) {
  const auto status =
      fileStatus(attributes(replica::ItemKind::file, 0644, 513), 513, Appearance{1000, 1001});
  EXPECT_EQ(status.st_ino, 42U);
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0644));
  EXPECT_EQ(status.st_nlink, 1U);
  EXPECT_EQ(status.st_uid, 1000U);
  EXPECT_EQ(status.st_gid, 1001U);
  EXPECT_EQ(status.st_size, 513);
  EXPECT_EQ(status.st_blocks, 2);
  EXPECT_EQ(status.st_blksize, 4096);
  EXPECT_EQ(status.st_mtim.tv_sec, 1'700'000'000);
  EXPECT_EQ(status.st_mtim.tv_nsec, 123'456'789);
}

TEST(FileStatusTest, AFolderIsAFolder) {
  const auto status = fileStatus(attributes(replica::ItemKind::folder, 0555, 0), 0, Appearance{});
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0555));
}

TEST(FileStatusTest, EachDateAndTheLinksAreShown) {
  auto shown = attributes(replica::ItemKind::file, 0644, 1);
  shown.accessed = 1'000'000'001;
  shown.changed = 2'000'000'002;
  shown.links = 0;
  const auto status = fileStatus(shown, 4096, Appearance{});
  EXPECT_EQ(nanoseconds(status.st_atim), 1'000'000'001);
  EXPECT_EQ(nanoseconds(status.st_mtim), shown.modified);
  EXPECT_EQ(nanoseconds(status.st_ctim), 2'000'000'002);
  EXPECT_EQ(status.st_nlink, 0U);
  EXPECT_EQ(status.st_blocks, 8);
}

TEST(FileStatusTest, AnEntryIsTheItemForAsLongAsItLives) {
  const auto entry = kernelEntry(attributes(replica::ItemKind::file, 0644, 1), 1, Appearance{});
  EXPECT_EQ(entry.ino, 42U);
  EXPECT_EQ(entry.generation, 0U);
  EXPECT_EQ(entry.attr.st_ino, 42U);
}

TEST(FileStatusTest, TimesSurviveTheirConversion) {
  for (const std::int64_t time :
       {std::int64_t{0}, std::int64_t{1}, std::int64_t{-1}, std::int64_t{-1'000'000'000},
        std::int64_t{-1'500'000'000}, std::int64_t{1'700'000'000'123'456'789},
        std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()}) {
    const auto parts = timeOf(time);
    EXPECT_GE(parts.tv_nsec, 0);
    EXPECT_LT(parts.tv_nsec, 1'000'000'000);
    EXPECT_EQ(nanoseconds(parts), time);
  }
}

TEST(FileStatusTest, TimesOutOfRangeBecomeTheNearest) {
  EXPECT_EQ(nanoseconds({.tv_sec = 100'000'000'000, .tv_nsec = 0}),
            std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(nanoseconds({.tv_sec = -100'000'000'000, .tv_nsec = 0}),
            std::numeric_limits<std::int64_t>::min());
}

TEST(FileStatusTest, AllThatChmodSetsIsKept) {
  EXPECT_EQ(permissionBits(S_IFREG | 07755), 07755);
  EXPECT_EQ(permissionBits(S_IFDIR | 01777), 01777);
}

}  // namespace
}  // namespace kestrowan::mount
