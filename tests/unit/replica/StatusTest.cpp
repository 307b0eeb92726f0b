#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "replica/model/State.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using std::chrono::minutes;
using ::testing::IsEmpty;
using ::testing::SizeIs;

/// What can be counted of a status.
std::string counts(const replica::Status& status) {
  return "items " + std::to_string(status.itemCount) + ", pending " +
         std::to_string(status.pendingCount) + " of " + std::to_string(status.pendingBytes) +
         " bytes, cached " + std::to_string(status.cachedFiles) + " of " +
         std::to_string(status.cachedBytes) + " bytes, history " +
         std::to_string(status.history.files);
}

class StatusTest : public testing::Test {
 protected:
  StatusTest() {
    for (const char* name : {"/a", "/b", "/c"}) world.server().writeFile(name, "12345");
    world.server().makeFolder("/folder");
    world.server().writeFile("/folder/deep", "1234567");
    world.list("/");
    world.list("/folder");
  }

  std::string counted() { return counts(world.replica().commands().status()); }
  /// Nothing is sent from here on.
  void goOffline() {
    world.extension().setDown(true);
    world.advance(minutes(3));
  }

  ReplicaWorld world;
};

TEST_F(StatusTest, CountsWithoutALookAtAllItems) {
  for (int i = 0; i < 1000; ++i) world.server().writeFile("/more" + std::to_string(i), "");
  world.advance(minutes(1));
  world.list("/");
  goOffline();
  world.write("/new", "123");
  const auto before = replica::model::State::lookups();
  EXPECT_THAT(world.replica().commands().status().pending, SizeIs(1));
  const auto after = replica::model::State::lookups();
  EXPECT_EQ(counted(), "items 1007, pending 1 of 3 bytes, cached 0 of 0 bytes, history 0");
  EXPECT_LT(after - before, 100);
}

TEST_F(StatusTest, EveryKindOfChangeIsCounted) {
  world.read("/b");
  EXPECT_EQ(counted(), "items 6, pending 0 of 0 bytes, cached 1 of 5 bytes, history 0");
  goOffline();
  world.write("/new", "123");
  world.append("/b", "678");
  world.rename("/a", "/folder/moved");
  world.remove("/c");
  world.makeFolder("/made");
  EXPECT_EQ(counted(), "items 8, pending 5 of 11 bytes, cached 0 of 0 bytes, history 1");
  world.append("/new", "45");
  EXPECT_EQ(world.replica().commands().status().pendingBytes, 13);
  world.remove("/new");
  EXPECT_EQ(counted(), "items 7, pending 4 of 8 bytes, cached 0 of 0 bytes, history 3");
  world.extension().setDown(false);
  ASSERT_TRUE(world.settle());
  EXPECT_EQ(counted(), "items 6, pending 0 of 0 bytes, cached 1 of 8 bytes, history 3");
  world.replica().commands().evict(replica::kRootRid);
  EXPECT_EQ(world.replica().commands().status().cachedFiles, 0);
}

TEST_F(StatusTest, WhatIsGivenUpIsCountedInTheHistory) {
  goOffline();
  world.write("/new", "123");
  world.replica().commands().discard(replica::kRootRid);
  EXPECT_EQ(counted(), "items 6, pending 0 of 0 bytes, cached 0 of 0 bytes, history 1");
}

TEST_F(StatusTest, TheCountsAreTheSameAfterANewStart) {
  world.read("/b");
  goOffline();
  world.write("/new", "123");
  world.rename("/a", "/folder/moved");
  world.remove("/c");
  world.replica().commands().discard(world.find("/new"));
  world.write("/other", "1234");
  const auto before = counted();
  world.crashUnconnected();
  EXPECT_EQ(counted(), before);
}

TEST_F(StatusTest, TheListOfPendingItemsIsAsLongAsItIsAskedFor) {
  goOffline();
  for (const char* name : {"/1", "/2", "/3"}) world.write(name, "x");
  const auto status = world.replica().commands().status(2);
  ASSERT_THAT(status.pending, SizeIs(2));
  EXPECT_EQ(status.pending[0].path, "/1");
  EXPECT_EQ(status.pending[1].path, "/2");
  EXPECT_EQ(status.pendingCount, 3);
  EXPECT_THAT(world.replica().commands().status(0).pending, IsEmpty());
}

}  // namespace
}  // namespace kestrowan::test
