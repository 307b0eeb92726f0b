#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

/// Nothing is removed at the provider, nor believed to be removed there, that nobody looked at.
class RemovalTest : public testing::Test {
 protected:
  /// Removes what `remove` does while nobody answers, lets `others` happen there meanwhile, and
  /// waits until both sides agree.
  template <typename Remove, typename Others>
  void removeUnseen(Remove remove, Others others) {
    world.extension().setDown(true);
    remove();
    others();
    world.extension().setDown(false);
    EXPECT_TRUE(world.settle());
    world.advance(seconds(70));
  }

  /// Listings are not answered until the hung calls are released.
  void holdListings() {
    world.extension().setFaults(
        [](const Call& call) { return Fault{.hangs = call.kind == CallKind::enumerateItems}; });
  }
  BegunCall<void> removeFile(const std::string& path) {
    return world.call(world.replica().files().removeFile(world.find("/"), path.substr(1)));
  }

  mutable ReplicaWorld world;
};

TEST_F(RemovalTest, TreeRemovedWithoutAServerLeavesWhatWasMadeDeepInItThere) {
  world.server().makeFolder("/d");
  world.server().makeFolder("/d/sub");
  world.server().writeFile("/d/sub/old", "1");
  world.list("/d");
  world.list("/d/sub");
  removeUnseen(
      [&] {
        world.remove("/d/sub/old");
        world.removeFolder("/d/sub");
        world.removeFolder("/d");
      },
      [&] { world.server().writeFile("/d/sub/new", "theirs"); });
  EXPECT_EQ(world.server().read("/d/sub/new"), "theirs");
  EXPECT_EQ(world.server().read("/d/sub/old"), std::nullopt);
  EXPECT_EQ(world.tree(), world.server().tree());
}

TEST_F(RemovalTest, TreeRemovedWithoutAServerLeavesWhatWasChangedInItThere) {
  world.server().makeFolder("/d");
  world.server().writeFile("/d/a", "1");
  world.server().writeFile("/d/b", "2");
  world.list("/d");
  removeUnseen(
      [&] {
        world.remove("/d/a");
        world.remove("/d/b");
        world.removeFolder("/d");
      },
      [&] { world.server().writeFile("/d/b", "theirs"); });
  EXPECT_EQ(world.server().read("/d/b"), "theirs");
  EXPECT_EQ(world.server().read("/d/a"), std::nullopt);
  EXPECT_EQ(world.tree(), world.server().tree());
}

TEST_F(RemovalTest, TreeOfFoldersRemovedWithoutAServerIsOneRequest) {
  world.server().makeFolder("/d");
  world.server().makeFolder("/d/sub");
  world.server().writeFile("/d/sub/a", "1");
  world.list("/d");
  world.list("/d/sub");
  world.extension().setDown(true);
  world.remove("/d/sub/a");
  world.removeFolder("/d/sub");
  world.removeFolder("/d");
  world.extension().setDown(false);
  world.extension().clearCalls();
  EXPECT_TRUE(world.settle());
  EXPECT_THAT(world.server().tree(), IsEmpty());
  EXPECT_EQ(world.extension().count(CallKind::deleteItem), 1u);
}

TEST_F(RemovalTest, EachOfManyRemovedFilesThatWasChangedThereComesBack) {
  const auto name = [](int number) { return "/" + std::to_string(100 + number); };
  constexpr int kFiles = 30;
  for (int number = 0; number < kFiles; ++number) world.server().writeFile(name(number), "old");
  world.list("/");
  removeUnseen(
      [&] {
        for (int number = 0; number < kFiles; ++number) world.remove(name(number));
      },
      [&] {
        world.server().writeFile(name(kFiles / 2), "theirs");
        world.server().writeFile(name(kFiles - 1), "theirs");
      });
  EXPECT_THAT(world.list("/"), ElementsAre("115", "129"));
  EXPECT_EQ(world.server().read("/115"), "theirs");
  EXPECT_EQ(world.server().read("/129"), "theirs");
}

TEST_F(RemovalTest, SlowFoldersListingIsNoProofForHalfAMinute) {
  world.server().writeFile("/a", "old");
  world.extension().setLatency(milliseconds(1500));
  world.list("/");
  world.advance(seconds(20));
  world.server().writeFile("/a", "theirs");
  world.extension().setLatency(milliseconds(0));
  EXPECT_EQ(errorOf([&] { world.remove("/a"); }),
            std::string(NSPOSIXErrorDomain) + " " + std::to_string(EBUSY));
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.read("/a"), "theirs");
}

TEST_F(RemovalTest, NewFileDoesNotReplaceOneThatOnlyAListingInDoubtShows) {
  for (int number = 10; number < 22; ++number) {
    world.server().writeFile("/" + std::to_string(number), "x");
  }
  world.list("/");
  world.write("/new", "ours");
  for (int number = 10; number < 21; ++number) world.server().remove("/" + std::to_string(number));
  world.server().writeFile("/new", "theirs");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/new"), "theirs");
  EXPECT_EQ(world.server().read("/new (2)"), "ours");
}

TEST_F(RemovalTest, EntryThatIsNotBelievedDoesNotMakeAFileOneThatIsGone) {
  world.server().writeFile("/a", "1");
  world.list("/");
  // The entry is there, but says something else of itself.
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::enumerateItems) {
      fault.entries = 0;
      fault.moreEntries = {nullptr};
    }
    if (call.kind == CallKind::deleteItem) {
      fault = {.effect = Fault::Effect::none, .error = NSError(NSURLErrorDomain, -1001)};
    }
    return fault;
  });
  world.advance(seconds(10));
  world.remove("/a");
  world.advance(seconds(100));
  world.extension().setFaults({});
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), std::nullopt) << "the removal was forgotten";
}

TEST_F(RemovalTest, OneListingWithAnotherKindTakesNothingAway) {
  world.server().makeFolder("/d");
  world.server().writeFile("/d/a", "contents");
  EXPECT_EQ(world.read("/d/a"), "contents");
  world.server().remove("/d");
  world.server().writeFile("/d", "a file");
  world.advance(milliseconds(2500));
  world.extension().clearCalls();
  world.list("/");
  world.advance(milliseconds(100));
  EXPECT_EQ(world.extension().count(CallKind::enumerateItems), 1u);
  EXPECT_EQ(world.attributes("/d").kind, replica::ItemKind::folder);
  world.advance(seconds(10));
  EXPECT_EQ(world.read("/d"), "a file");
}

TEST_F(RemovalTest, EachMissingFileWaitsForItsOwnSecondLook) {
  for (const char* name : {"/a", "/b", "/c", "/d"}) world.server().writeFile(name, name);
  for (const char* name : {"/a", "/b", "/c", "/d"}) world.read(name);
  world.server().remove("/a");
  world.advance(milliseconds(2500));
  world.list("/");
  world.advance(milliseconds(1900));
  world.server().remove("/b");
  world.advance(milliseconds(200));
  // The second look at the first is the first look at the other.
  EXPECT_FALSE(world.exists("/a"));
  EXPECT_EQ(world.read("/b"), "/b");
  world.advance(seconds(5));
  EXPECT_FALSE(world.exists("/b"));
}

TEST_F(RemovalTest, RenameOverAFolderThatIsNotEmptyThereFails) {
  world.server().makeFolder("/from");
  world.server().makeFolder("/to");
  world.list("/from");
  world.list("/to");
  world.server().writeFile("/to/new", "theirs");
  EXPECT_EQ(errorOf([&] { world.rename("/from", "/to"); }), "NSFileProviderErrorDomain -1007");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/to/new"), "theirs");
  EXPECT_TRUE(world.exists("/from"));
}

TEST_F(RemovalTest, RemovedFilesBytesAreKeptUntilEveryCopyHasArrived) {
  world.server().writeFile("/a", "moved by copying");
  EXPECT_EQ(world.read("/a"), "moved by copying");
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::createItem) {
      fault = {.effect = Fault::Effect::none,
               .error = NSError(NSURLErrorDomain, NSURLErrorNetworkConnectionLost)};
    }
    return fault;
  });
  world.write("/copy", "moved by copying");
  world.remove("/a");
  EXPECT_EQ(world.server().read("/a"), std::nullopt);
  EXPECT_EQ(world.replica().commands().status().history.files, 1);
}

TEST_F(RemovalTest, FolderRemovedThereIsMadeAgainForWhoeverWritesInIt) {
  world.server().makeFolder("/d");
  world.write("/d/log", "one");
  EXPECT_TRUE(world.settle());
  const auto log = world.open("/d/log", {.read = true, .write = true});
  world.server().remove("/d");
  world.advance(seconds(3));
  world.list("/");
  world.advance(seconds(10));
  ReplicaWorld::writeTo(*log, "two", 3);
  EXPECT_TRUE(world.call(world.replica().files().fsync(log)).hasSucceeded());
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/d/log"), "onetwo");
}

TEST_F(RemovalTest, FileIsNotRemovedBeforeALookOnItsWayHasShownWhatIsThere) {
  world.server().writeFile("/a", "old");
  world.list("/");
  world.server().writeFile("/a", "theirs");
  holdListings();
  const auto listed = world.call(world.replica().askForRoot());
  world.advance(milliseconds(100));
  const auto removed = removeFile("/a");
  world.advance(milliseconds(100));
  EXPECT_EQ(world.extension().count(CallKind::deleteItem), 0u);
  world.extension().releaseHung();
  EXPECT_TRUE(world.settle());
  EXPECT_TRUE(listed.hasSucceeded());
  EXPECT_EQ(world.server().read("/a"), "theirs");
  EXPECT_EQ(world.read("/a"), "theirs");
}

TEST_F(RemovalTest, FileIsLookedAtAgainWhenItsRemovalHadToWaitForOtherCalls) {
  for (int number = 0; number < 8; ++number) {
    world.server().makeFolder("/slow" + std::to_string(number));
  }
  world.server().writeFile("/a", "old");
  world.list("/");
  holdListings();
  std::vector<BegunCall<std::shared_ptr<const replica::FolderSnapshot>>> listed;
  for (int number = 0; number < 8; ++number) {
    const auto folder = world.find("/slow" + std::to_string(number));
    listed.push_back(world.call(world.replica().files().openFolder(folder)));
  }
  world.advance(milliseconds(100));
  const auto removed = removeFile("/a");
  world.advance(seconds(40));
  world.server().writeFile("/a", "theirs");
  EXPECT_EQ(world.extension().count(CallKind::deleteItem), 0u);
  world.extension().setFaults({});
  world.extension().releaseHung();
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "theirs");
  EXPECT_EQ(world.read("/a"), "theirs");
}

}  // namespace
}  // namespace kestrowan::test
