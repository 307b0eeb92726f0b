#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>

#include "platform/foundation/NSError.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class FreshnessTest : public testing::Test {
 protected:
  FreshnessTest() {
    world.server().makeFolder("/docs");
    world.server().writeFile("/docs/a", "one");
    world.list("/docs");
    world.extension().clearCalls();
  }

  std::size_t listings() const { return world.extension().count(CallKind::enumerateItems); }
  std::ptrdiff_t listingsOfDocs() const {
    const auto calls = world.extension().calls();
    return std::count(calls.begin(), calls.end(), "enumerateItems /docs");
  }

  mutable ReplicaWorld world;
};

TEST_F(FreshnessTest, NamesAndAttributesAskForNothingBeyondTheListing) {
  world.attributes("/docs/a");
  EXPECT_FALSE(world.exists("/docs/b"));
  world.list("/docs");
  EXPECT_THAT(world.extension().calls(), IsEmpty());
}

TEST_F(FreshnessTest, ListingOfTwoSecondsIsTakenAsItIs) {
  world.server().writeFile("/docs/b", "two");
  world.advance(milliseconds(1900));
  EXPECT_THAT(world.list("/docs"), ElementsAre("a"));
  EXPECT_EQ(listings(), 0u);
}

TEST_F(FreshnessTest, OlderListingIsGoodWhileANewOneIsFetched) {
  world.server().writeFile("/docs/b", "two");
  world.advance(milliseconds(2100));
  EXPECT_THAT(world.list("/docs"), ElementsAre("a"));
  world.advance(seconds(1));
  EXPECT_THAT(world.list("/docs"), ElementsAre("a", "b"));
}

TEST_F(FreshnessTest, ListingOfHalfAMinuteIsWaitedFor) {
  // Nobody has the folder open, and it is not listed meanwhile.
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::enumerateItems) fault.error = NSError(NSURLErrorDomain, -1001);
    if (call.kind == CallKind::enumerateItems) fault.effect = Fault::Effect::none;
    return fault;
  });
  world.advance(seconds(31));
  world.extension().setFaults({});
  world.server().writeFile("/docs/b", "two");
  EXPECT_THAT(world.list("/docs"), ElementsAre("a", "b"));
}

TEST_F(FreshnessTest, NobodyWaitsLongerThanThreeSecondsForANewListing) {
  world.advance(seconds(31));
  world.extension().setLatency(seconds(20));
  world.advance(milliseconds(2100));
  world.extension().setLatency(seconds(50));
  world.server().writeFile("/docs/b", "two");
  world.advance(seconds(40));
  const async::Loop::Moment before = world.loop().now();
  EXPECT_THAT(world.list("/docs"), Contains("a"));
  EXPECT_LE(world.loop().now() - before, milliseconds(6100));
}

TEST_F(FreshnessTest, OpenedFileIsComparedWithAListingOfTwoSeconds) {
  EXPECT_EQ(world.read("/docs/a"), "one");
  world.server().writeFile("/docs/a", "changed");
  world.advance(milliseconds(2100));
  EXPECT_EQ(world.read("/docs/a"), "changed");
}

TEST_F(FreshnessTest, FreshFileThatIsHereIsOpenedWithoutARequest) {
  world.read("/docs/a");
  world.extension().clearCalls();
  EXPECT_EQ(world.read("/docs/a"), "one");
  EXPECT_THAT(world.extension().calls(), IsEmpty());
}

TEST_F(FreshnessTest, FolderInUseIsListedEveryHalfMinuteAndNoLongerThanTwoMinutesAfter) {
  world.advance(seconds(110));
  const std::size_t inUse = listings();
  EXPECT_GE(inUse, 3u) << "of the folder and of the root";
  world.advance(seconds(120));
  const std::size_t atTheEnd = listings();
  world.advance(seconds(300));
  EXPECT_EQ(listings(), atTheEnd);
}

TEST_F(FreshnessTest, FolderThatIsWatchedIsListedAsLongAsItIs) {
  world.advance(seconds(400));
  world.extension().clearCalls();
  const replica::Rid docs = world.find("/docs");
  world.replica().files().setWatched({docs, 12345}, seconds(30));
  world.extension().clearCalls();
  world.advance(seconds(400));
  EXPECT_GE(listingsOfDocs(), 400 / 33);
  EXPECT_LE(listingsOfDocs(), 400 / 27 + 1);
  world.replica().files().setWatched({}, seconds(30));
  world.advance(seconds(200));
  world.extension().clearCalls();
  world.advance(seconds(200));
  EXPECT_EQ(listingsOfDocs(), 0);
}

TEST_F(FreshnessTest, FolderOfAWatchedFileIsListed) {
  const replica::Rid file = world.find("/docs/a");
  world.advance(seconds(400));
  world.replica().files().setWatched({file}, seconds(30));
  world.extension().clearCalls();
  world.advance(seconds(100));
  EXPECT_GE(listingsOfDocs(), 3);
}

TEST_F(FreshnessTest, WatchedFolderIsListedMoreOftenFromTheMomentThatIsAskedFor) {
  const replica::Rid docs = world.find("/docs");
  world.replica().files().setWatched({docs}, seconds(30));
  world.replica().files().setWatched({docs}, seconds(10));
  world.extension().clearCalls();
  world.advance(seconds(100));
  EXPECT_GE(listingsOfDocs(), 9);
  EXPECT_LE(listingsOfDocs(), 100 / 9 + 1);
  world.replica().files().setWatched({docs}, seconds(30));
  world.advance(seconds(12));
  world.extension().clearCalls();
  world.advance(seconds(120));
  EXPECT_GE(listingsOfDocs(), 3);
  EXPECT_LE(listingsOfDocs(), 5);
}

TEST_F(FreshnessTest, FolderThatTakesLongToListIsListedMoreRarely) {
  world.call(world.replica().files().openFolder(world.find("/docs")));
  world.extension().setLatency(seconds(4));
  world.advance(seconds(40));
  world.extension().clearCalls();
  // Not before twenty times the four seconds.
  world.advance(seconds(30));
  EXPECT_THAT(world.extension().calls(), IsEmpty());
  world.advance(seconds(100));
  EXPECT_THAT(world.extension().calls(), Contains("enumerateItems /docs"));
}

TEST_F(FreshnessTest, ListingsOfAFolderAreSharedByAllWhoWait) {
  world.server().makeFolder("/new");
  world.advance(milliseconds(2100));
  world.list("/");
  world.advance(seconds(1));
  world.extension().clearCalls();
  const replica::Rid folder = world.find("/new");
  std::vector<test::BegunCall<std::shared_ptr<const replica::FolderSnapshot>>> calls;
  for (int count = 0; count < 5; ++count) {
    calls.push_back(world.call(world.replica().files().openFolder(folder)));
  }
  world.advance(seconds(5));
  for (const auto& call : calls) EXPECT_TRUE(call.hasSucceeded());
  EXPECT_THAT(world.extension().calls(), ElementsAre("enumerateItems /new"));
}

TEST_F(FreshnessTest, WithoutAServerWhatIsKnownIsAnsweredAtOnce) {
  world.extension().setDown(true);
  world.advance(seconds(300));
  const async::Loop::Moment before = world.loop().now();
  EXPECT_THAT(world.list("/docs"), ElementsAre("a"));
  EXPECT_EQ(world.loop().now(), before);
}

TEST_F(FreshnessTest, NameThatIsNotThereIsLookedForAfterTwoSeconds) {
  world.advance(seconds(5));
  world.server().writeFile("/docs/b", "two");
  EXPECT_TRUE(world.exists("/docs/b"));
  EXPECT_EQ(world.read("/docs/b"), "two");
}

TEST_F(FreshnessTest, NameThatIsStillNotThereIsNotLookedForAgainWithinTwoSeconds) {
  world.advance(seconds(5));
  world.extension().clearCalls();
  EXPECT_FALSE(world.exists("/docs/b"));
  EXPECT_FALSE(world.exists("/docs/b"));
  EXPECT_FALSE(world.exists("/docs/c"));
  EXPECT_EQ(listingsOfDocs(), 1);
}

TEST_F(FreshnessTest, OneListingAnswersAllThatLookForWhatIsNotThere) {
  world.advance(seconds(5));
  const replica::Rid folder = world.find("/docs");
  world.extension().clearCalls();
  world.extension().setLatency(seconds(1));
  world.server().writeFile("/docs/b", "two");
  std::vector<test::BegunCall<replica::Attributes>> calls;
  for (const auto* name : {"b", "b", "c", "b"}) {
    calls.push_back(world.call(world.replica().files().lookUp(folder, name)));
  }
  world.advance(milliseconds(1100));
  for (const std::size_t found : {0, 1, 3}) EXPECT_TRUE(calls[found].hasSucceeded()) << found;
  EXPECT_TRUE(calls[2].hasEnded());
  EXPECT_THROW(calls[2].result(), NSError);
  EXPECT_EQ(listingsOfDocs(), 1);
}

TEST_F(FreshnessTest, NamesThatProgramsProbeAndThatStayHereAreNotWaitedFor) {
  world.advance(seconds(5));
  world.extension().setLatency(seconds(1));
  const async::Loop::Moment before = world.loop().now();
  for (const auto* name : {".git", ".gitignore", ".hidden", ".directory", ".Trash-1000", "._a",
                           ".a.swp", ".DS_Store"}) {
    EXPECT_FALSE(world.exists(std::string("/docs/") + name)) << name;
  }
  EXPECT_EQ(world.loop().now(), before);
}

TEST_F(FreshnessTest, NameThatIsThereIsNotWaitedFor) {
  world.advance(seconds(5));
  world.extension().setLatency(seconds(1));
  const async::Loop::Moment before = world.loop().now();
  EXPECT_TRUE(world.exists("/docs/a"));
  EXPECT_EQ(world.loop().now(), before);
}

TEST_F(FreshnessTest, NameThatIsNotThereIsWaitedForThreeSecondsAtMost) {
  world.advance(seconds(5));
  world.extension().setLatency(seconds(20));
  const async::Loop::Moment before = world.loop().now();
  EXPECT_FALSE(world.exists("/docs/b"));
  EXPECT_EQ(world.loop().now() - before, seconds(3));
  // It answers slowly: the next one has not to wait for it.
  EXPECT_FALSE(world.exists("/docs/c"));
  EXPECT_EQ(world.loop().now() - before, seconds(3));
}

TEST_F(FreshnessTest, FolderThatTakesLongToListIsNotListedForEachNameThatIsNotThere) {
  world.extension().setLatency(seconds(1));
  world.advance(seconds(5));
  EXPECT_FALSE(world.exists("/docs/b"));
  world.extension().clearCalls();
  // Not before twenty times the second.
  world.advance(seconds(15));
  EXPECT_FALSE(world.exists("/docs/b"));
  EXPECT_EQ(listingsOfDocs(), 0);
}

TEST_F(FreshnessTest, WithoutAServerANameThatIsNotThereIsAnsweredAtOnce) {
  world.extension().setDown(true);
  world.advance(seconds(300));
  const async::Loop::Moment before = world.loop().now();
  EXPECT_FALSE(world.exists("/docs/b"));
  EXPECT_EQ(world.loop().now(), before);
}

class AheadTest : public testing::Test {
 protected:
  std::size_t count(CallKind kind) const { return world.extension().count(kind); }

  mutable ReplicaWorld world;
};

TEST_F(AheadTest, FilesAreFetchedAheadOfAProgramThatReadsOneAfterAnother) {
  for (int number = 100; number < 160; ++number) {
    world.server().writeFile("/file" + std::to_string(number), "x");
  }
  world.list("/");
  world.extension().clearCalls();
  world.read("/file100");
  world.read("/file101");
  EXPECT_EQ(count(CallKind::fetchContents), 2u);
  world.read("/file102");
  world.advance(seconds(1));
  EXPECT_GT(count(CallKind::fetchContents), 10u);
  EXPECT_LT(count(CallKind::fetchContents), 40u) << "not the whole folder";
  for (int number = 103; number < 160; ++number) world.read("/file" + std::to_string(number));
  EXPECT_EQ(count(CallKind::fetchContents), 60u) << "each of them once";
}

TEST_F(AheadTest, LargeFilesAreLeftUntilTheyAreAskedFor) {
  for (int number = 100; number < 110; ++number) {
    world.server().writeFile("/file" + std::to_string(number), std::string(300 * 1024, 'x'));
  }
  world.list("/");
  for (int number = 100; number < 104; ++number) world.read("/file" + std::to_string(number));
  world.advance(seconds(1));
  EXPECT_EQ(count(CallKind::fetchContents), 4u);
}

TEST_F(AheadTest, FilesReadLongAfterOneAnotherAreNoWalk) {
  for (int number = 100; number < 110; ++number) {
    world.server().writeFile("/file" + std::to_string(number), "x");
  }
  for (int number = 100; number < 104; ++number) {
    world.read("/file" + std::to_string(number));
    world.advance(seconds(3));
  }
  EXPECT_EQ(count(CallKind::fetchContents), 4u);
}

TEST_F(AheadTest, FoldersAreListedAheadOfAProgramThatListsOneAfterAnother) {
  for (int number = 100; number < 140; ++number) {
    world.server().makeFolder("/folder" + std::to_string(number));
  }
  world.list("/");
  world.extension().clearCalls();
  world.list("/folder100");
  world.list("/folder101");
  world.advance(milliseconds(500));
  EXPECT_EQ(count(CallKind::enumerateItems), 2u);
  world.list("/folder102");
  world.advance(milliseconds(500));
  EXPECT_EQ(count(CallKind::enumerateItems), 9u) << "six more";
  for (int number = 103; number < 140; ++number) world.list("/folder" + std::to_string(number));
  EXPECT_EQ(count(CallKind::enumerateItems), 40u) << "each of them once";
}

TEST_F(AheadTest, FoldersAreGoneThroughInTheOrderOfTheirNames) {
  for (const char* name : {"c", "a", "b", "B", "0"})
    world.server().makeFolder(std::string("/") + name);
  EXPECT_THAT(world.list("/"), ElementsAre("0", "B", "a", "b", "c"));
}

}  // namespace
}  // namespace kestrowan::test
