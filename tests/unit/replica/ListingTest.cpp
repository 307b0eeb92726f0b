#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <string>

#include "platform/foundation/NSError.h"
#include "support/MemoryItem.h"
#include "support/RecordingLog.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;

/// What a provider may say in a listing, and what becomes of it.
class ListingTest : public testing::Test {
 protected:
  ListingTest() { world.server().writeFile("/a", "x"); }

  static std::shared_ptr<MemoryItem> entry(const std::string& identifier, const std::string& name) {
    auto item = std::make_shared<MemoryItem>();
    item->identifier = identifier;
    item->name = name;
    item->size = 1;
    item->version = {NSData("1"), NSData("1")};
    return item;
  }

  /// Every listing ends with one entry more from now on.
  void add(const std::shared_ptr<MemoryItem>& item) {
    world.extension().setFaults([item](const Call& call) {
      Fault fault;
      if (call.kind == CallKind::enumerateItems) fault.moreEntries = {item};
      return fault;
    });
  }

  void expectRefused(const std::shared_ptr<MemoryItem>& item) {
    add(item);
    EXPECT_THAT(world.list("/"), ElementsAre("a"));
    EXPECT_EQ(world.replica().commands().status().refusedEntries, 1);
  }

  ReplicaWorld world;
};

TEST_F(ListingTest, ProperEntryIsShown) {
  add(entry("/b", "b"));
  EXPECT_THAT(world.list("/"), ElementsAre("a", "b"));
  EXPECT_EQ(world.replica().commands().status().refusedEntries, 0);
}

TEST_F(ListingTest, IdentifierOfAnotherFormIsRefused) {
  expectRefused(entry("https://elsewhere/b", "b"));
}

TEST_F(ListingTest, EmptyIdentifierIsRefused) {
  expectRefused(entry("", "b"));
}

TEST_F(ListingTest, AnotherSpellingOfAnIdentifierIsRefused) {
  for (const char* other : {"//b", "/b/", "/./b", "/a/../b", "/B", "/c", "/b/b", "/", "/."}) {
    ReplicaWorld another;
    auto item = entry(other, "b");
    another.extension().setFaults([item](const Call& call) {
      Fault fault;
      if (call.kind == CallKind::enumerateItems) fault.moreEntries = {item};
      return fault;
    });
    EXPECT_THAT(another.list("/"), ElementsAre()) << other;
    EXPECT_EQ(another.replica().commands().status().refusedEntries, 1) << other;
  }
}

TEST_F(ListingTest, OfOpaqueIdentifiersOnlyTheFormIsKnown) {
  ReplicaWorld another({.opaqueIdentifiers = true});
  std::vector<NSFileProviderItemPtr> items;
  for (const char* one : {"node:900", "other:901", ""}) items.push_back(entry(one, "b"));
  items.push_back(entry(std::string(NSFileProviderRootContainerItemIdentifier), "c"));
  another.extension().setFaults([items](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::enumerateItems) fault.moreEntries = items;
    return fault;
  });
  EXPECT_THAT(another.list("/"), ElementsAre("b"));
  EXPECT_EQ(another.replica().commands().status().refusedEntries, 3);
}

TEST_F(ListingTest, EntryOfAnotherFolderIsRefused) {
  auto item = entry("/b", "b");
  item->parent = "/elsewhere";
  expectRefused(item);
}

TEST_F(ListingTest, SecondEntryOfANameIsRefused) {
  expectRefused(entry("/b", "a"));
}

class ListingNameTest : public ListingTest, public testing::WithParamInterface<std::string> {};

TEST_P(ListingNameTest, IsRefused) {
  expectRefused(entry("/b", GetParam()));
}

INSTANTIATE_TEST_SUITE_P(NamesThatAreNone, ListingNameTest,
                         testing::Values("", ".", "..", "a/b", std::string("a\0b", 3),
                                         std::string(256, 'x')));

TEST_F(ListingTest, RefusedEntryKeepsWhatIsMissingFromBeingRemoved) {
  world.list("/");
  world.server().remove("/a");
  add(entry("elsewhere", "b"));
  world.advance(seconds(120));
  EXPECT_THAT(world.list("/"), ElementsAre("a"));
  world.extension().setFaults({});
  world.advance(seconds(120));
  EXPECT_THAT(world.list("/"), ElementsAre());
}

TEST_F(ListingTest, SizeIsNeverNegative) {
  auto item = entry("/b", "b");
  item->size = -5;
  add(item);
  EXPECT_EQ(world.attributes("/b").size, 0);
}

TEST_F(ListingTest, DatesBeyondTheYear9999AreNone) {
  auto item = entry("/b", "b");
  item->date = NSDate{1e15};
  add(item);
  EXPECT_EQ(world.attributes("/b").modified, 0);
}

TEST_F(ListingTest, DatesThatHaveNoNanosecondsAreTheNearestThatHave) {
  auto late = entry("/b", "b");
  late->date = NSDate{2e11};
  add(late);
  EXPECT_EQ(world.attributes("/b").modified, std::numeric_limits<std::int64_t>::max());
  auto early = entry("/c", "c");
  early->date = NSDate{-6e10};
  add(early);
  world.advance(seconds(60));
  EXPECT_EQ(world.attributes("/c").modified, std::numeric_limits<std::int64_t>::min());
}

TEST_F(ListingTest, SizeIsNeverBeyondWhatADiskHolds) {
  auto item = entry("/b", "b");
  item->size = std::numeric_limits<std::int64_t>::max();
  add(item);
  EXPECT_EQ(world.attributes("/b").size, std::int64_t{1} << 60);
  EXPECT_NE(errorOf([&] { world.read("/b"); }), "");
}

TEST_F(ListingTest, OfAnOverlongVersionABoundedPartIsKept) {
  auto item = entry("/b", "b");
  item->version = {NSData(std::string(20000, 'v')), NSData("1")};
  add(item);
  const auto version = world.replica().commands().itemStatus(world.find("/b")).version;
  EXPECT_NE(version, NSData());
  EXPECT_LE(version.size(), 128u);
}

/// A file whose contents change while its size stays, and what else the provider says of it.
class SameSizeTest : public testing::Test {
 protected:
  struct Saying {
    std::string version;
    std::optional<double> date;
  };

  SameSizeTest() { say({"", std::nullopt}); }

  /// Every listing, and every answer about the file, says that from now on.
  void say(const Saying& saying) {
    world.extension().setFaults([saying](const Call& call) {
      Fault fault;
      if (call.kind != CallKind::enumerateItems && call.path != "/a") return fault;
      fault.itemChange = [saying](MemoryItem& item) {
        if (item.name != "a") return;
        item.version = {NSData(saying.version), NSData(saying.version)};
        item.date.reset();
        if (saying.date) item.date = NSDate{*saying.date};
      };
      return fault;
    });
  }

  /// What is shown after the file has been changed at the provider, when it was read before.
  std::string afterChange(const Saying& before, const Saying& after) {
    world.server().writeFile("/a", "old");
    say(before);
    world.advance(seconds(60));
    EXPECT_EQ(world.read("/a"), "old");
    world.server().writeFile("/a", "new");
    say(after);
    world.advance(seconds(60));
    return world.read("/a");
  }

  ReplicaWorld world;
};

TEST_F(SameSizeTest, AChangeThatOnlyAnOverlongVersionTellsIsSeen) {
  const std::string long_(200, 'v');
  EXPECT_EQ(afterChange({long_ + "1", 5}, {long_ + "2", 5}), "new");
}

TEST_F(SameSizeTest, AChangeThatOnlyTheDateTellsIsSeen) {
  EXPECT_EQ(afterChange({"", 5}, {"", 6}), "new");
}

TEST_F(SameSizeTest, AVersionThatIsAWordOfAnswersIsSeenInListings) {
  EXPECT_EQ(afterChange({"new|5|3", 5}, {"new|6|3", 6}), "new");
  EXPECT_EQ(afterChange({"new|1", std::nullopt}, {"modified|1", std::nullopt}), "new");
}

TEST_F(SameSizeTest, WhatNothingTellsIsNotSeen) {
  EXPECT_EQ(afterChange({"", 5}, {"", 5}), "old");
  EXPECT_EQ(afterChange({"", std::nullopt}, {"", std::nullopt}), "old");
}

TEST_F(SameSizeTest, AChangeThatOnlyTheDateTellsIsNotOverwritten) {
  world.server().writeFile("/a", "old");
  say({"", 5});
  EXPECT_EQ(world.read("/a"), "old");
  world.write("/a", "ours");
  world.server().writeFile("/a", "new");
  say({"", 6});
  EXPECT_TRUE(world.settle());
  EXPECT_TRUE(world.server().everHeld("ours"));
  EXPECT_EQ(world.server().read("/a"), "new");
}

TEST_F(ListingTest, NothingIsAskedForThatWasNotAdmitted) {
  expectRefused(entry("https://elsewhere/b", "b"));
  world.extension().clearCalls();
  EXPECT_NE(errorOf([&] { world.remove("/b"); }), "");
  EXPECT_NE(errorOf([&] { world.read("/b"); }), "");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.extension().count(CallKind::deleteItem), 0u);
  EXPECT_EQ(world.extension().count(CallKind::fetchContents), 0u);
}

/// A provider whose listings come whole only while it is said so.
class PartialListingTest : public testing::Test {
 protected:
  PartialListingTest() {
    for (const auto* name : {"/a", "/b", "/c", "/d"}) world.server().writeFile(name, "x");
  }

  replica::Options options() {
    replica::Options made;
    made.cameWhole = [this](const NSFileProviderItemIdentifier& folder, std::chrono::milliseconds) {
      EXPECT_FALSE(folder.empty());
      return whole;
    };
    return made;
  }

  bool whole = true;
  ReplicaWorld world{{}, options()};
};

TEST_F(PartialListingTest, RemovesNothingHoweverOftenItComes) {
  world.list("/");
  EXPECT_EQ(world.read("/a"), "x");
  whole = false;
  for (const auto* name : {"/a", "/b", "/c"}) world.server().remove(name);
  for (int i = 0; i < 10; ++i) {
    world.advance(seconds(60));
    EXPECT_THAT(world.list("/"), ElementsAre("a", "b", "c", "d"));
  }
  whole = true;
  world.advance(seconds(120));
  world.list("/");
  world.advance(seconds(120));
  EXPECT_THAT(world.list("/"), ElementsAre("d"));
}

TEST_F(PartialListingTest, ItsLinesInTheLogAreOfOtherKindsThanThoseOfOtherNews) {
  const RecordingLog log;
  world.list("/");
  whole = false;
  world.advance(seconds(60));
  world.list("/");
  whole = true;
  world.advance(seconds(60));
  world.list("/");
  const auto forms = log.forms();
  ASSERT_EQ(forms.size(), 2u);
  EXPECT_NE(forms[0], forms[1]);
}

TEST_F(PartialListingTest, ShowsWhatIsNew) {
  world.list("/");
  whole = false;
  world.server().writeFile("/e", "x");
  world.advance(seconds(60));
  EXPECT_THAT(world.list("/"), ElementsAre("a", "b", "c", "d", "e"));
}

TEST_F(PartialListingTest, IsAskedForAgainAndThenNamedNoLonger) {
  whole = false;
  world.list("/");
  EXPECT_THAT(world.replica().commands().status().partialFolders, ElementsAre("/"));
  EXPECT_GE(world.replica().commands().status().partialListings, 1);
  world.extension().clearCalls();
  whole = true;
  world.advance(seconds(3));
  EXPECT_GE(world.extension().count(CallKind::enumerateItems), 1u);
  EXPECT_THAT(world.replica().commands().status().partialFolders, ElementsAre());
}

TEST_F(PartialListingTest, IsAskedForEverMoreRarely) {
  whole = false;
  world.list("/");
  world.extension().clearCalls();
  world.advance(std::chrono::hours(24));
  EXPECT_LE(world.extension().count(CallKind::enumerateItems), 30u);
}

TEST_F(PartialListingTest, DoesNotAllowAFileToReplaceWhatItLacks) {
  world.list("/");
  whole = false;
  world.advance(seconds(60));
  world.server().writeFile("/new", "theirs");
  // The server has it, and the listing does not say so.
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::enumerateItems) fault.entries = 4;
    return fault;
  });
  world.write("/new", "ours");
  world.advance(seconds(600));
  EXPECT_EQ(world.server().tree().at("/new"), "theirs");
  EXPECT_EQ(world.read("/new"), "ours");
  world.extension().setFaults({});
  whole = true;
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().tree().at("/new"), "theirs");
}

TEST_F(PartialListingTest, DoesNotProveThatARemovedFileIsGone) {
  world.list("/");
  whole = false;
  world.advance(seconds(60));
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::enumerateItems) fault.entries = 0;
    return fault;
  });
  world.remove("/a");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().tree().count("/a"), 0u);
}

}  // namespace
}  // namespace kestrowan::test
