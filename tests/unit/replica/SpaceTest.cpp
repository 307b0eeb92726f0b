#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/foundation/NSError.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;

replica::Options withSpaceFor(std::int64_t bytes) {
  replica::Options options;
  options.cacheLimit = bytes;
  options.evictionAge = seconds(600);
  return options;
}

/// Contents that could be fetched again give way to others.
class SpaceTest : public testing::Test {
 protected:
  SpaceTest() {
    for (const char* name : {"/a", "/b", "/c"}) world.server().writeFile(name, "12345");
    world.list("/");
  }

  bool isHere(std::string_view path) {
    return world.replica().commands().itemStatus(world.find(path)).downloaded;
  }

  ReplicaWorld world{{}, withSpaceFor(12)};
};

TEST_F(SpaceTest, WhatWasUsedLongestAgoGoesFirst) {
  world.read("/a");
  world.advance(minutes(11));
  world.read("/b");
  world.advance(minutes(11));
  world.read("/a");
  world.advance(minutes(11));
  world.read("/c");
  EXPECT_TRUE(isHere("/a"));
  EXPECT_FALSE(isHere("/b"));
  EXPECT_TRUE(isHere("/c"));
}

TEST_F(SpaceTest, WhatWasUsedWithinTenMinutesStays) {
  world.read("/a");
  world.read("/b");
  world.read("/c");
  EXPECT_TRUE(isHere("/a"));
  EXPECT_TRUE(isHere("/b"));
  world.advance(minutes(12));
  EXPECT_EQ(world.replica().commands().status().cachedFiles, 2) << "the limit is kept later";
}

TEST_F(SpaceTest, HolesPushNothingOut) {
  constexpr std::int64_t kGibibyte = std::int64_t{1} << 30;
  world.read("/a");
  world.advance(minutes(11));
  {
    const auto file = world.create("/sparse");
    file->write([](int fd) { return ::ftruncate(fd, kGibibyte / 64) == 0 ? 0 : errno; });
  }
  ASSERT_TRUE(world.settle());
  world.advance(minutes(11));
  EXPECT_TRUE(isHere("/a"));
  EXPECT_TRUE(isHere("/sparse"));
  EXPECT_EQ(world.replica().commands().status().cachedBytes, 5);
  world.read("/b");
  world.advance(minutes(11));
  world.read("/c");
  EXPECT_EQ(world.replica().commands().status().cachedBytes, 10) << "what holds bytes has gone";
}

TEST_F(SpaceTest, ChangedContentsStay) {
  world.extension().setDown(true);
  world.write("/a", "changed");
  world.extension().setDown(false);
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::item) {
      fault = {.effect = Fault::Effect::none, .error = NSError(NSPOSIXErrorDomain, EPERM)};
    }
    return fault;
  });
  world.advance(minutes(11));
  world.read("/b");
  world.advance(minutes(11));
  world.read("/c");
  world.advance(minutes(11));
  EXPECT_EQ(world.read("/a"), "changed");
  const auto result = world.replica().commands().evict(world.find("/a"));
  EXPECT_EQ(result.evicted, 0);
  EXPECT_EQ(result.changed, 1);
}

TEST_F(SpaceTest, OpenAndPinnedContentsStay) {
  const auto open = world.open("/a", {.read = true});
  world.replica().commands().setPinned(world.find("/b"), true);
  world.advance(minutes(11));
  world.read("/c");
  world.advance(minutes(30));
  EXPECT_TRUE(isHere("/a"));
  EXPECT_TRUE(isHere("/b"));
  EXPECT_FALSE(isHere("/c"));
}

TEST_F(SpaceTest, PinnedFolderFetchesWhatIsInItAndWhatComes) {
  world.replica().commands().setPinned(replica::kRootRid, true);
  world.advance(seconds(5));
  EXPECT_TRUE(isHere("/a"));
  EXPECT_TRUE(isHere("/c"));
  world.server().writeFile("/d", "later");
  world.advance(minutes(1));
  EXPECT_TRUE(isHere("/d"));
}

TEST(FreeSpaceTest, FileThatDoesNotFitIsNotFetched) {
  replica::Options options;
  // More than any disk has.
  options.freeSpaceFloor = std::int64_t{1} << 60;
  ReplicaWorld world({}, options);
  world.server().writeFile("/a", "12345");
  world.list("/");
  EXPECT_EQ(errorOf([&] { world.read("/a"); }),
            std::string(NSPOSIXErrorDomain) + " " + std::to_string(ENOSPC));
  EXPECT_EQ(world.extension().count(CallKind::fetchContents), 0u);
}

}  // namespace
}  // namespace kestrowan::test
