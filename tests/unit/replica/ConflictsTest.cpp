#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "platform/foundation/NSError.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using replica::KeptVersion;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

/// A file of which both sides have changed.
class ConflictsTest : public testing::Test {
 protected:
  ConflictsTest() {
    world.write("/a", "common");
    EXPECT_TRUE(world.settle());
    world.extension().setDown(true);
    world.write("/a", "mine");
    world.server().writeFile("/a", "theirs");
    world.extension().setDown(false);
    EXPECT_TRUE(world.settle());
    EXPECT_THAT(conflicts(), SizeIs(1));
    copy = conflicts().front().path;
  }

  std::vector<replica::Status::Conflict> conflicts() const {
    return world.replica().commands().status().conflicts;
  }
  std::string resolve(const std::string& path, KeptVersion kept) const {
    const auto stays = world.await(world.replica().commands().resolve(world.find(path), kept));
    EXPECT_TRUE(world.settle());
    EXPECT_THAT(conflicts(), IsEmpty());
    EXPECT_EQ(world.tree(), world.server().tree());
    return stays;
  }
  std::string resolveError(const std::string& path, KeptVersion kept) const {
    return errorOf(
        [&] { world.await(world.replica().commands().resolve(world.find(path), kept)); });
  }
  static std::string posix(int code) {
    return std::string(NSPOSIXErrorDomain) + " " + std::to_string(code);
  }

  mutable ReplicaWorld world;
  std::string copy;
};

TEST_F(ConflictsTest, StatusNamesBothVersions) {
  EXPECT_EQ(conflicts().front().theirs, "/a");
  EXPECT_EQ(world.read(copy), "mine");
  EXPECT_EQ(world.read("/a"), "theirs");
}

TEST_F(ConflictsTest, MineTakesThePlaceOfTheirsWhichIsInTheHistory) {
  EXPECT_EQ(world.read("/a"), "theirs");
  EXPECT_EQ(resolve(copy, KeptVersion::mine), "/a");
  EXPECT_EQ(world.read("/a"), "mine");
  EXPECT_THAT(world.server().tree(), SizeIs(1));
  EXPECT_THAT(world.history(), Contains("theirs"));
}

TEST_F(ConflictsTest, TheirsStaysAloneAndMineIsInTheHistory) {
  EXPECT_EQ(resolve("/a", KeptVersion::theirs), "/a");
  EXPECT_EQ(world.read("/a"), "theirs");
  EXPECT_THAT(world.server().tree(), SizeIs(1));
  EXPECT_THAT(world.history(), Contains("mine"));
}

TEST_F(ConflictsTest, BothStayAsTwoFiles) {
  resolve("/a", KeptVersion::both);
  EXPECT_EQ(world.read("/a"), "theirs");
  EXPECT_EQ(world.read(copy), "mine");
  EXPECT_EQ(resolveError("/a", KeptVersion::both), posix(EINVAL));
}

TEST_F(ConflictsTest, MineStaysWhereItIsWhenTheirsIsNoMore) {
  world.server().remove("/a");
  world.advance(std::chrono::seconds(70));
  world.list("/");
  world.advance(std::chrono::seconds(70));
  world.list("/");
  ASSERT_FALSE(world.exists("/a"));
  EXPECT_EQ(conflicts().front().theirs, "");
  EXPECT_EQ(resolveError(copy, KeptVersion::theirs), posix(ENOENT));
  EXPECT_EQ(resolve(copy, KeptVersion::mine), copy);
  EXPECT_EQ(world.read(copy), "mine");
}

TEST_F(ConflictsTest, AnyOtherFileIsNoSideOfOne) {
  world.write("/b", "x");
  EXPECT_EQ(resolveError("/b", KeptVersion::mine), posix(EINVAL));
  EXPECT_THAT(conflicts(), SizeIs(1));
}

TEST_F(ConflictsTest, IsResolvedWithoutAServerToo) {
  EXPECT_EQ(world.read("/a"), "theirs");
  world.extension().setDown(true);
  EXPECT_EQ(world.await(world.replica().commands().resolve(world.find("/a"), KeptVersion::mine)),
            "/a");
  EXPECT_EQ(world.read("/a"), "mine");
  EXPECT_THAT(conflicts(), IsEmpty());
  world.extension().setDown(false);
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "mine");
  EXPECT_THAT(world.server().tree(), SizeIs(1));
}

}  // namespace
}  // namespace kestrowan::test
