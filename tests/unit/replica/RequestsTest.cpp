#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/foundation/NSError.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

/// What each call of a program asks of the provider, in a folder whose listing is fresh.
class RequestsTest : public testing::Test {
 protected:
  RequestsTest() {
    world.server().makeFolder("/docs");
    world.server().makeFolder("/docs/empty");
    world.server().writeFile("/docs/a", "one");
    world.list("/docs");
    world.extension().clearCalls();
  }

  /// The requests until both sides agree.
  std::vector<std::string> requests() {
    EXPECT_TRUE(world.settle());
    return world.extension().calls();
  }

  ReplicaWorld world;
};

TEST_F(RequestsTest, FolderIsListedInOne) {
  world.list("/docs/empty");
  EXPECT_THAT(world.extension().calls(), ElementsAre("enumerateItems /docs/empty"));
}

TEST_F(RequestsTest, NamesAreLookedUpInNone) {
  world.attributes("/docs/a");
  EXPECT_FALSE(world.exists("/docs/b"));
  EXPECT_THAT(world.extension().calls(), IsEmpty());
}

TEST_F(RequestsTest, FileThatIsNotHereIsOpenedInOne) {
  world.read("/docs/a");
  EXPECT_THAT(world.extension().calls(), ElementsAre("fetchContents /docs/a"));
}

TEST_F(RequestsTest, FileThatIsHereIsOpenedInNone) {
  world.read("/docs/a");
  world.extension().clearCalls();
  world.read("/docs/a");
  EXPECT_THAT(world.extension().calls(), IsEmpty());
}

TEST_F(RequestsTest, FileIsSavedInTwo) {
  world.write("/docs/a", "two");
  EXPECT_THAT(requests(), ElementsAre("item /docs/a", "modifyItem /docs/a 3"));
}

TEST_F(RequestsTest, FileIsMadeInOneAndALook) {
  world.write("/docs/b", "two");
  EXPECT_THAT(requests(), ElementsAre("enumerateItems /docs", "createItem /docs/b 3"));
}

TEST_F(RequestsTest, FilesMadeTogetherShareTheLook) {
  for (int number = 0; number < 20; ++number) {
    world.write("/docs/new" + std::to_string(number), "x");
  }
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.extension().count(CallKind::createItem), 20u);
  EXPECT_LE(world.extension().count(CallKind::enumerateItems), 2u);
}

TEST_F(RequestsTest, FolderIsMadeInOne) {
  world.makeFolder("/docs/new");
  EXPECT_THAT(requests(), ElementsAre("createItem /docs/new folder"));
}

TEST_F(RequestsTest, ItemIsRenamedInOne) {
  world.rename("/docs/a", "/docs/b");
  EXPECT_THAT(requests(), ElementsAre("modifyItem /docs/a -> /docs/b"));
}

TEST_F(RequestsTest, RenameAndNewContentsGoInOne) {
  world.extension().setDown(true);
  world.write("/docs/a", "two");
  world.rename("/docs/a", "/docs/b");
  world.extension().clearCalls();
  world.extension().setDown(false);
  EXPECT_TRUE(world.settle());
  EXPECT_THAT(world.extension().calls(), testing::Contains("modifyItem /docs/a -> /docs/b 3"));
  EXPECT_EQ(world.extension().count(CallKind::modifyItem), 1u);
}

TEST_F(RequestsTest, FileIsRemovedInOne) {
  world.remove("/docs/a");
  EXPECT_THAT(requests(), ElementsAre("deleteItem /docs/a"));
}

TEST_F(RequestsTest, FileIsRemovedInTwoWhenTheListingIsOlderThanTwoSeconds) {
  world.advance(milliseconds(2100));
  world.remove("/docs/a");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.extension().count(CallKind::deleteItem), 1u);
  EXPECT_GE(world.extension().count(CallKind::enumerateItems), 1u);
}

TEST_F(RequestsTest, FolderIsRemovedInTwo) {
  world.list("/docs/empty");
  world.extension().clearCalls();
  world.removeFolder("/docs/empty");
  EXPECT_THAT(requests(), ElementsAre("enumerateItems /docs/empty", "deleteItem /docs/empty"));
}

TEST_F(RequestsTest, WhatIsMadeAndRemovedBeforeItIsSentCostsNone) {
  world.write("/docs/b", "two");
  world.remove("/docs/b");
  EXPECT_THAT(requests(), IsEmpty());
}

}  // namespace
}  // namespace kestrowan::test
