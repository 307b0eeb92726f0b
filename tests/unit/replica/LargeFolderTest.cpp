#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/NSError.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::Not;
using testing::SizeIs;

constexpr int kSlice = 1000;

/// Listings that are written in slices, and what happens between two of these.
class LargeFolderTest : public testing::Test {
 protected:
  LargeFolderTest() {
    world.server().makeFolder("/big");
    folder = world.find("/big");
  }

  static std::string name(int number) {
    std::string digits = std::to_string(number);
    return "f" + std::string(5 - digits.size(), '0') + digits;
  }
  void writeThere(int first, int last) {
    for (int i = first; i < last; ++i) world.server().writeFile("/big/" + name(i), "x");
  }
  void removeThere(int first, int last) {
    for (int i = first; i < last; ++i) world.server().remove("/big/" + name(i));
  }
  std::int64_t items() { return world.replica().commands().status().itemCount; }

  /// Lists a folder anew.
  void beginListing(replica::Rid which) {
    listing.emplace(world.call(world.replica().files().openFolder(which)));
  }
  void beginListing() { beginListing(folder); }
  bool isListed() const { return listing && listing->hasEnded(); }
  /// Until that is written; the greatest change of the number of items between two functions.
  std::int64_t greatestStep() {
    std::int64_t before = items();
    std::int64_t greatest = 0;
    const auto look = [&] {
      const std::int64_t now = items();
      greatest = std::max(greatest, std::abs(now - before));
      before = now;
      return isListed();
    };
    EXPECT_TRUE(world.loop().runUntil(look, minutes(5)));
    return greatest;
  }
  /// Until a listing that has begun has written its first slice.
  void runToFirstSlice() {
    const std::int64_t before = items();
    ASSERT_TRUE(world.loop().runUntil([&] { return items() != before; }, minutes(5)));
    ASSERT_FALSE(isListed());
  }
  /// What is known becomes too old to be shown: nothing has been in use for long.
  void forgetListings() { world.advance(minutes(5)); }
  /// Whether programs see the names that the server has.
  void expectNames(const std::string& path) {
    std::vector<std::string> names;
    const auto entries = world.server().list(path);
    ASSERT_TRUE(entries);
    for (const auto& entry : *entries) names.push_back(entry.name);
    EXPECT_EQ(world.list(path), names);
  }
  void listWhole(int count) {
    writeThere(0, count);
    EXPECT_THAT(world.list("/big"), SizeIs(count));
  }

  ReplicaWorld world;
  replica::Rid folder = 0;
  std::optional<test::BegunCall<std::shared_ptr<const replica::FolderSnapshot>>> listing;
};

TEST_F(LargeFolderTest, ComesInSlices) {
  writeThere(0, 2 * kSlice + 500);
  beginListing();
  EXPECT_EQ(greatestStep(), kSlice);
  EXPECT_EQ(items(), 2 * kSlice + 502);
  EXPECT_THAT(world.list("/big"), SizeIs(2 * kSlice + 500));
  EXPECT_EQ(world.extension().count(CallKind::enumerateItems), 2);
}

TEST_F(LargeFolderTest, OneOfThousandEntriesIsOneEdit) {
  writeThere(0, kSlice);
  world.loop().holdAside(true);
  EXPECT_THAT(world.list("/big"), SizeIs(kSlice));
}

TEST_F(LargeFolderTest, IsNotShownBeforeItsLastSlice) {
  writeThere(0, 2 * kSlice + 500);
  beginListing();
  runToFirstSlice();
  const auto found = world.call(world.replica().files().lookUp(folder, name(0)));
  EXPECT_FALSE(found.hasEnded());
  EXPECT_GE(greatestStep(), 500);
  EXPECT_TRUE(world.loop().runUntil([&] { return found.hasEnded(); }, seconds(1)));
}

TEST_F(LargeFolderTest, CallsAreAnsweredWhileItIsCompared) {
  listWhole(2 * kSlice);
  world.server().writeFile("/a", "there");
  world.list("/");
  forgetListings();
  world.list("/");
  writeThere(2 * kSlice, 3 * kSlice);
  world.loop().holdAside(true);
  world.call(world.replica().files().lookUp(folder, "none"));
  world.advance(seconds(4));
  ASSERT_GT(world.loop().countAside(), 0U);
  EXPECT_EQ(world.attributes("/a").size, 5);
  world.write("/b", "here");
  EXPECT_EQ(world.read("/b"), "here");
  EXPECT_THAT(world.list("/big"), SizeIs(2 * kSlice));
  world.loop().holdAside(false);
  EXPECT_TRUE(world.settle());
  EXPECT_THAT(world.list("/big"), SizeIs(3 * kSlice));
}

TEST_F(LargeFolderTest, WhatItLacksGoesAfterAllThatItHas) {
  listWhole(3 * kSlice);
  forgetListings();
  removeThere(0, kSlice + 200);
  world.server().writeFile("/big/zzz", "x");
  beginListing();
  const std::int64_t all = items();
  ASSERT_TRUE(world.loop().runUntil([&] { return items() != all; }, minutes(5)));
  // The slice with the new entry went on with what is lacking.
  EXPECT_EQ(items(), all + 1 - (kSlice - 1));
  EXPECT_LE(greatestStep(), kSlice);
  EXPECT_TRUE(world.exists("/big/zzz"));
  EXPECT_THAT(world.list("/big"), SizeIs(2 * kSlice - 200 + 1));
}

TEST_F(LargeFolderTest, ThatLosesMostIsNotBelievedAtOnce) {
  listWhole(3 * kSlice);
  forgetListings();
  removeThere(0, 2 * kSlice);
  world.list("/big");
  world.advance(seconds(4));
  EXPECT_THAT(world.list("/big"), SizeIs(3 * kSlice));
  world.advance(seconds(40));
  EXPECT_THAT(world.list("/big"), SizeIs(kSlice));
}

TEST_F(LargeFolderTest, DownloadedFileStaysUntilASecondListingLacksIt) {
  listWhole(2 * kSlice);
  EXPECT_EQ(world.read("/big/" + name(7)), "x");
  forgetListings();
  removeThere(7, 9);
  EXPECT_THAT(world.list("/big"), SizeIs(2 * kSlice - 1));
  world.advance(seconds(4));
  EXPECT_THAT(world.list("/big"), SizeIs(2 * kSlice - 2));
  EXPECT_THAT(world.history(), ElementsAre("x"));
}

TEST_F(LargeFolderTest, ThatIsGoneGoesInSlices) {
  listWhole(2 * kSlice + 500);
  forgetListings();
  world.server().remove("/big");
  beginListing(replica::kRootRid);
  EXPECT_EQ(greatestStep(), kSlice);
  EXPECT_EQ(items(), 1);
  EXPECT_THAT(world.list("/"), ElementsAre());
}

TEST_F(LargeFolderTest, FolderInTheNameOfAFileTakesItsPlace) {
  listWhole(2 * kSlice);
  forgetListings();
  removeThere(5, 6);
  world.server().makeFolder("/big/" + name(5));
  world.server().writeFile("/big/" + name(5) + "/in", "y");
  EXPECT_THAT(world.list("/big"), SizeIs(2 * kSlice));
  EXPECT_THAT(world.list("/big/" + name(5)), ElementsAre("in"));
}

TEST_F(LargeFolderTest, MoveWithoutAnAnswerIsFollowedBeforeItsEntryIsMade) {
  listWhole(2 * kSlice);
  world.server().writeFile("/moved", "its bytes");
  forgetListings();
  world.list("/");
  EXPECT_EQ(world.read("/moved"), "its bytes");
  const auto item = world.find("/moved");
  const std::size_t fetches = world.extension().count(CallKind::fetchContents);
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::modifyItem) {
      fault.error = NSError(NSURLErrorDomain, NSURLErrorTimedOut);
    }
    return fault;
  });
  world.rename("/moved", "/big/" + name(0) + "a");
  world.extension().setFaults({});
  ASSERT_TRUE(world.settle());
  EXPECT_EQ(world.find("/big/" + name(0) + "a"), item);
  EXPECT_EQ(world.read("/big/" + name(0) + "a"), "its bytes");
  EXPECT_EQ(world.extension().count(CallKind::fetchContents), fetches);
  expectNames("/big");
}

TEST_F(LargeFolderTest, WhatIsAnsweredBetweenSlicesIsLeftOut) {
  listWhole(2 * kSlice);
  const auto first = world.find("/big/" + name(0));
  const std::string last = "/big/" + name(2 * kSlice - 1);
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    fault.hangs = call.kind == CallKind::modifyItem;
    return fault;
  });
  world.write(last, "from here");
  ASSERT_TRUE(world.loop().runUntil(
      [&] { return world.extension().count(CallKind::modifyItem) > 0; }, minutes(1)));
  world.loop().runUntilIdle();
  // All the others are news, which the next listing of the folder in use shows.
  for (int i = 0; i < 2 * kSlice - 1; ++i) world.server().writeFile("/big/" + name(i), "other");
  const auto size = [&] { return world.replica().files().attributes(first).size; };
  ASSERT_TRUE(world.loop().runUntil([&] { return size() == 5; }, minutes(5)));
  world.extension().setFaults({});
  EXPECT_EQ(world.extension().releaseHung(), 1U);
  ASSERT_TRUE(world.settle());
  EXPECT_TRUE(world.replica().commands().status().conflicts.empty());
  EXPECT_EQ(world.read(last), "from here");
  EXPECT_EQ(world.server().read(last), "from here");
  EXPECT_EQ(world.extension().count(CallKind::modifyItem), 1U);
  EXPECT_EQ(world.extension().count(CallKind::fetchContents), 0U);
  expectNames("/big");
}

TEST_F(LargeFolderTest, ThatMovesBetweenSlicesIsLookedAtAnew) {
  writeThere(0, 2 * kSlice + 500);
  beginListing();
  runToFirstSlice();
  world.rename("/big", "/large");
  ASSERT_TRUE(world.loop().runUntil([&] { return isListed(); }, minutes(5)));
  ASSERT_TRUE(world.settle());
  EXPECT_THAT(world.list("/large"), SizeIs(2 * kSlice + 500));
  EXPECT_EQ(items(), 2 * kSlice + 502);
  expectNames("/large");
}

TEST_F(LargeFolderTest, ThatIsRemovedThereBetweenSlicesGoes) {
  writeThere(0, 2 * kSlice + 500);
  beginListing();
  runToFirstSlice();
  world.server().remove("/big");
  ASSERT_TRUE(world.loop().runUntil([&] { return isListed(); }, minutes(5)));
  forgetListings();
  EXPECT_THAT(world.list("/"), ElementsAre());
  EXPECT_EQ(items(), 1);
}

TEST_F(LargeFolderTest, KillBetweenSlicesLeavesItUnlisted) {
  writeThere(0, 2 * kSlice + 500);
  beginListing();
  runToFirstSlice();
  world.crashUnconnected();
  EXPECT_EQ(items(), kSlice + 2);
  EXPECT_THAT(errorOf([&] { world.list("/big"); }), Not(""));
  world.connect();
  EXPECT_THAT(world.list("/big"), SizeIs(2 * kSlice + 500));
  EXPECT_TRUE(world.settle());
  expectNames("/big");
}

TEST_F(LargeFolderTest, KillBetweenTheSlicesOfARemovalLosesNothing) {
  listWhole(3 * kSlice);
  EXPECT_EQ(world.read("/big/" + name(2 * kSlice)), "x");
  world.write("/big/" + name(2 * kSlice + 1), "ours");
  ASSERT_TRUE(world.settle());
  forgetListings();
  removeThere(0, kSlice + 400);
  beginListing();
  runToFirstSlice();
  world.crash();
  EXPECT_THAT(world.list("/big"), SizeIs(2 * kSlice - 400));
  EXPECT_EQ(world.read("/big/" + name(2 * kSlice + 1)), "ours");
  EXPECT_TRUE(world.settle());
  expectNames("/big");
}

TEST_F(LargeFolderTest, WithoutNewsIsWrittenAtOnce) {
  listWhole(3 * kSlice);
  forgetListings();
  std::size_t functions = 0;
  beginListing();
  ASSERT_TRUE(world.loop().runUntil(
      [&] {
        ++functions;
        return isListed();
      },
      minutes(5)));
  EXPECT_EQ(items(), 3 * kSlice + 2);
  EXPECT_LT(functions, 40U);
}

}  // namespace
}  // namespace kestrowan::test
