#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "platform/foundation/NSError.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using replica::NameTaken;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::SizeIs;

std::string posix(int number) {
  return "NSPOSIXErrorDomain " + std::to_string(number);
}

/// A file of the history is made again as a program would make it.
class RestoreTest : public testing::Test {
 protected:
  RestoreTest() {
    world.server().makeFolder("/d");
    world.server().writeFile("/d/a", "first");
    world.list("/d");
    before = world.attributes("/d/a").modified;
    world.read("/d/a");
    world.remove("/d/a");
    EXPECT_TRUE(world.settle());
    const auto list = world.replica().commands().history({}, 10);
    EXPECT_THAT(list.entries, SizeIs(1));
    entry = list.entries.at(0).content;
  }

  std::string restore(std::string_view folder, std::string_view name,
                      NameTaken ifTaken = NameTaken::another) {
    const auto rid = world.find(folder);
    std::string path;
    const std::string error = errorOf([&] {
      path =
          world.await(world.replica().commands().restore(entry, rid, std::string(name), ifTaken));
    });
    return error.empty() ? path : error;
  }

  ReplicaWorld world;
  std::int64_t before = 0;
  replica::ContentNumber entry = 0;
};

TEST_F(RestoreTest, AFileIsThereAgainWithItsDateAndIsSent) {
  EXPECT_EQ(restore("/d", "a"), "/d/a");
  EXPECT_EQ(world.read("/d/a"), "first");
  EXPECT_EQ(world.attributes("/d/a").modified, before);
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/d/a"), "first");
}

TEST_F(RestoreTest, WhatIsRestoredStaysInTheHistory) {
  restore("/d", "a");
  world.write("/d/a", "other");
  EXPECT_THAT(world.history(), ElementsAre("first", "first"));
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(restore("/d", "b"), "/d/b");
  EXPECT_EQ(world.read("/d/b"), "first");
}

TEST_F(RestoreTest, ANameThatIsTakenGivesWayToOneLikeIt) {
  world.write("/d/a", "new");
  EXPECT_EQ(restore("/d", "a"), "/d/a (2)");
  EXPECT_EQ(restore("/d", "a"), "/d/a (3)");
  EXPECT_EQ(restore("/d", "a", NameTaken::fails), posix(EEXIST));
  EXPECT_EQ(world.read("/d/a"), "new");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/d/a (2)"), "first");
}

TEST_F(RestoreTest, WhatIsNotThereCannotBeRestored) {
  entry += 1000;
  EXPECT_EQ(restore("/d", "a"), posix(ENOENT));
  entry -= 1000;
  EXPECT_EQ(restore("/d", "../a"), posix(EINVAL));
  world.replica().refuseNewWork();
  EXPECT_EQ(restore("/d", "a"), posix(EROFS));
}

TEST_F(RestoreTest, WhatIsRestoredWithoutAServerIsSentLater) {
  world.extension().setDown(true);
  world.advance(minutes(3));
  EXPECT_EQ(restore("/d", "b"), "/d/b");
  world.crash();
  EXPECT_EQ(world.read("/d/b"), "first");
  world.extension().setDown(false);
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/d/b"), "first");
}

}  // namespace
}  // namespace kestrowan::test
