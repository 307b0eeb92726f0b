#include "mount/MountTable.h"

#include <gtest/gtest.h>

namespace kestrowan::mount {
namespace {

constexpr std::string_view kTable =
    "22 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw\n"
    "30 22 0:26 / /mnt/with\\040blank rw - tmpfs none rw\n"
    "31 22 0:47 / /mnt/a rw,nosuid,nodev shared:2 master:1 - fuse.kestrowan kestrowan rw\n"
    "32 31 0:48 / /mnt/a rw,nosuid,nodev - fuse.other source rw\n"
    "33 22 0:49 / /mnt/b\\134c rw - ext4 /dev/x\\040y rw\n"
    "broken line\n";

TEST(MountTableTest, TheMountOnTopIsFound) {
  const auto mount = mountAt("/mnt/a", kTable);
  EXPECT_EQ(mount, (MountEntry{"0:48", "/mnt/a", "fuse.other"}));
}

TEST(MountTableTest, FoldersInAMountAreNoMountPoints) {
  EXPECT_EQ(mountAt("/mnt", kTable), std::nullopt);
  EXPECT_EQ(mountAt("/mnt/a/b", kTable), std::nullopt);
}

TEST(MountTableTest, EscapedPathsAreRead) {
  EXPECT_EQ(mountAt("/mnt/with blank", kTable)->type, "tmpfs");
  EXPECT_EQ(mountAt("/mnt/b\\c", kTable)->device, "0:49");
}

TEST(MountTableTest, TheSystemsOwnTableHasTheRoot) {
  const auto root = mountAt("/");
  ASSERT_TRUE(root);
  EXPECT_FALSE(root->type.empty());
}

}  // namespace
}  // namespace kestrowan::mount
