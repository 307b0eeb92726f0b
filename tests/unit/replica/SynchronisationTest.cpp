#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <utility>

#include "platform/foundation/NSError.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using replica::SyncState;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

std::string posix(int number) {
  return std::string(NSPOSIXErrorDomain) + " " + std::to_string(number);
}

class SynchronisationTest : public testing::Test {
 protected:
  ReplicaWorld world;
};

TEST_F(SynchronisationTest, FolderShowsWhatTheServerHas) {
  world.server().makeFolder("/docs");
  world.server().writeFile("/docs/a", "one");
  EXPECT_THAT(world.list("/"), ElementsAre("docs"));
  EXPECT_THAT(world.list("/docs"), ElementsAre("a"));
  EXPECT_EQ(world.attributes("/docs/a").size, 3);
  EXPECT_EQ(world.read("/docs/a"), "one");
}

TEST_F(SynchronisationTest, WrittenFileArrivesInOneRequestOfContents) {
  world.list("/");
  world.extension().clearCalls();
  world.write("/a", "hello");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "hello");
  EXPECT_EQ(world.extension().count(CallKind::createItem), 1u);
  EXPECT_EQ(world.extension().count(CallKind::modifyItem), 0u);
}

TEST_F(SynchronisationTest, TenSavesInABurstAreOneRequestOfContents) {
  world.server().writeFile("/a", "old");
  world.read("/a");
  world.extension().clearCalls();
  for (int save = 0; save < 10; ++save) world.write("/a", "save " + std::to_string(save));
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "save 9");
  EXPECT_EQ(world.extension().count(CallKind::modifyItem), 1u);
}

TEST_F(SynchronisationTest, AtomicSaveIsOneRequestOfContents) {
  world.server().writeFile("/a", "old");
  world.read("/a");
  world.extension().clearCalls();
  world.write("/a.tmp", "new");
  world.rename("/a.tmp", "/a");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "new");
  EXPECT_EQ(world.server().tree().size(), 1u);
  EXPECT_EQ(world.extension().count(CallKind::modifyItem), 1u);
  EXPECT_EQ(world.extension().count(CallKind::createItem), 0u);
  EXPECT_EQ(world.extension().count(CallKind::deleteItem), 0u);
}

TEST_F(SynchronisationTest, FileMadeAndRemovedIsNeverSent) {
  world.list("/");
  world.extension().clearCalls();
  world.write("/a", "x");
  world.remove("/a");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.extension().count(CallKind::createItem), 0u);
  EXPECT_EQ(world.extension().count(CallKind::deleteItem), 0u);
}

TEST_F(SynchronisationTest, WorkGoesOnWithoutAServerAndArrivesLater) {
  world.server().writeFile("/old", "old");
  world.list("/");
  world.read("/old");
  world.extension().setDown(true);
  world.makeFolder("/a");
  world.makeFolder("/a/b");
  world.write("/a/b/c", "deep");
  world.rename("/old", "/a/older");
  world.advance(seconds(120));
  EXPECT_EQ(world.read("/a/b/c"), "deep");
  EXPECT_EQ(world.server().tree().size(), 1u);
  world.extension().setDown(false);
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().tree(), world.tree());
  EXPECT_EQ(world.server().read("/a/b/c"), "deep");
  EXPECT_EQ(world.server().read("/a/older"), "old");
  EXPECT_FALSE(world.server().read("/old"));
}

TEST_F(SynchronisationTest, AcknowledgedChangesSurviveTheProcess) {
  world.server().writeFile("/a", "old");
  world.read("/a");
  world.extension().setDown(true);
  world.write("/a", "new");
  world.write("/b", "made");
  world.crash();
  EXPECT_EQ(world.read("/b"), "made");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "new");
  EXPECT_EQ(world.server().read("/b"), "made");
}

TEST_F(SynchronisationTest, WriteIntoAFileThatWasTheSameSurvivesTheProcess) {
  world.server().writeFile("/a", "old");
  world.read("/a");
  {
    const auto file = world.open("/a", {.read = true, .write = true});
    ReplicaWorld::writeTo(*file, "new");
  }
  world.crash();
  EXPECT_EQ(world.read("/a"), "new");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "new");
}

TEST_F(SynchronisationTest, DownloadOfAnotherSizeIsFetchedAgain) {
  world.server().writeFile("/a", "whole");
  bool isFirst = true;
  world.extension().setFaults([&](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::fetchContents && std::exchange(isFirst, false)) fault.fileSize = 2;
    return fault;
  });
  EXPECT_EQ(world.read("/a"), "whole");
  EXPECT_EQ(world.extension().count(CallKind::fetchContents), 2u);
}

TEST_F(SynchronisationTest, DownloadThatNeverHasItsSizeIsAnError) {
  world.server().writeFile("/a", "whole");
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::fetchContents) fault.fileSize = 2;
    return fault;
  });
  EXPECT_NE(errorOf([&] { world.read("/a"); }), "");
  EXPECT_EQ(world.extension().count(CallKind::fetchContents), 3u);
}

TEST_F(SynchronisationTest, LostAnswerToAnUploadIsNoConflict) {
  world.server().writeFile("/a", "old");
  world.read("/a");
  int uploads = 0;
  world.extension().setFaults([&](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::modifyItem && ++uploads == 1) {
      fault.error = NSError(NSURLErrorDomain, NSURLErrorNetworkConnectionLost);
    }
    return fault;
  });
  world.write("/a", "new");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "new");
  EXPECT_EQ(world.server().tree().size(), 1u);
  EXPECT_EQ(uploads, 1);
}

TEST_F(SynchronisationTest, LostAnswerToARenameIsFoundOut) {
  world.server().writeFile("/a", "x");
  world.list("/");
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::modifyItem) {
      fault.error = NSError(NSURLErrorDomain, NSURLErrorNetworkConnectionLost);
    }
    return fault;
  });
  world.rename("/a", "/b");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.extension().count(CallKind::modifyItem), 1u);
  EXPECT_THAT(world.list("/"), ElementsAre("b"));
}

TEST_F(SynchronisationTest, ChangeOnBothSidesKeepsBoth) {
  world.server().writeFile("/a.txt", "old");
  world.read("/a.txt");
  world.extension().setDown(true);
  world.write("/a.txt", "mine");
  world.advance(seconds(5));
  world.server().writeFile("/a.txt", "theirs");
  world.extension().setDown(false);
  EXPECT_TRUE(world.settle());
  const auto tree = world.server().tree();
  ASSERT_EQ(tree.size(), 2u);
  EXPECT_EQ(tree.at("/a.txt"), "theirs");
  for (const auto& [path, bytes] : tree) {
    if (path != "/a.txt") {
      EXPECT_THAT(path, testing::HasSubstr("a (conflict "));
      EXPECT_THAT(path, testing::EndsWith("here).txt"));
      EXPECT_EQ(bytes, "mine");
    }
  }
  EXPECT_EQ(world.replica().commands().status().conflicts.size(), 1u);
}

TEST_F(SynchronisationTest, NewFileWhoseNameIsTakenThereGetsAnother) {
  world.list("/");
  world.extension().setDown(true);
  world.write("/a.txt", "mine");
  world.advance(seconds(5));
  world.server().writeFile("/a.txt", "theirs");
  world.extension().setDown(false);
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a.txt"), "theirs");
  EXPECT_EQ(world.server().read("/a (2).txt"), "mine");
  EXPECT_EQ(world.tree(), world.server().tree());
}

TEST_F(SynchronisationTest, NewFileThatIsThereAlreadyIsTheSame) {
  world.list("/");
  world.extension().setDown(true);
  world.write("/a.txt", "same");
  world.advance(seconds(5));
  world.server().writeFile("/a.txt", "same");
  world.extension().setDown(false);
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().tree().size(), 1u);
}

TEST_F(SynchronisationTest, ChangedFileThatWasRemovedThereIsMadeAnew) {
  world.server().writeFile("/a", "old");
  world.read("/a");
  world.extension().setDown(true);
  world.write("/a", "mine");
  world.advance(seconds(5));
  world.server().remove("/a");
  world.extension().setDown(false);
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "mine");
}

TEST_F(SynchronisationTest, RemovedFileThatWasChangedThereComesBack) {
  world.server().writeFile("/a", "old");
  world.read("/a");
  world.extension().setDown(true);
  world.remove("/a");
  world.advance(seconds(5));
  world.server().writeFile("/a", "theirs");
  world.extension().setDown(false);
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "theirs");
  EXPECT_EQ(world.read("/a"), "theirs");
}

TEST_F(SynchronisationTest, FileThatWasWrittenAndRemovedComesBackAsItIsThere) {
  world.server().writeFile("/a", "one");
  world.read("/a");
  world.extension().setDown(true);
  {
    const auto file = world.open("/a", {.read = true, .write = true});
    ReplicaWorld::writeTo(*file, "and so much more", 3);
  }
  world.remove("/a");
  world.server().writeFile("/a", "theirs, which is longer than what was written here");
  world.extension().setDown(false);
  ASSERT_TRUE(world.settle());
  world.advance(seconds(70));
  const std::string theirs = *world.server().read("/a");
  EXPECT_EQ(world.attributes("/a").size, static_cast<std::int64_t>(theirs.size()));
  EXPECT_EQ(world.read("/a"), theirs);
  EXPECT_EQ(world.attributes("/a").size, static_cast<std::int64_t>(theirs.size()));
}

TEST_F(SynchronisationTest, FileRemovedWithoutAServerAndChangedThereComesBack) {
  world.server().writeFile("/a", "old");
  world.list("/");
  world.extension().setDown(true);
  world.advance(seconds(40));
  world.remove("/a");
  world.server().writeFile("/a", "changed there");
  world.extension().setDown(false);
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "changed there");
  EXPECT_EQ(world.read("/a"), "changed there");
}

TEST_F(SynchronisationTest, FolderWithNewEntriesThereIsNotRemoved) {
  world.server().makeFolder("/d");
  world.list("/d");
  world.server().writeFile("/d/new", "x");
  EXPECT_EQ(errorOf([&] { world.removeFolder("/d"); }), "NSFileProviderErrorDomain -1007");
  EXPECT_EQ(world.server().read("/d/new"), "x");
  EXPECT_THAT(world.list("/d"), ElementsAre("new"));
}

TEST_F(SynchronisationTest, NamesThatChangePlacesGoByAThirdName) {
  world.server().writeFile("/a", "A");
  world.server().writeFile("/b", "B");
  world.list("/");
  world.extension().setDown(true);
  world.rename("/a", "/c");
  world.rename("/b", "/a");
  world.rename("/c", "/b");
  world.extension().setDown(false);
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "B");
  EXPECT_EQ(world.server().read("/b"), "A");
  EXPECT_EQ(world.server().tree().size(), 2u);
}

TEST_F(SynchronisationTest, RenamedFolderTakesAlongWhatIsInIt) {
  world.server().makeFolder("/d");
  world.server().makeFolder("/d/e");
  world.server().writeFile("/d/e/f", "x");
  world.list("/d/e");
  world.rename("/d", "/g");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.read("/g/e/f"), "x");
  world.write("/g/e/f", "y");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/g/e/f"), "y");
}

TEST_F(SynchronisationTest, RemoteChangeIsSeenAndTheOldHandleKeepsTheOldBytes) {
  world.server().writeFile("/a", "old");
  const auto handle = world.open("/a", {});
  const auto before = world.attributes("/a").rid;
  world.advance(seconds(40));
  world.server().writeFile("/a", "newer");
  world.advance(seconds(40));
  EXPECT_EQ(world.read("/a"), "newer");
  EXPECT_NE(world.attributes("/a").rid, before);
  EXPECT_EQ(ReplicaWorld::readFrom(*handle), "old");
}

TEST_F(SynchronisationTest, ListingThatLosesMostEntriesIsNotBelievedAtOnce) {
  for (int i = 0; i < 12; ++i) world.server().writeFile("/f" + std::to_string(i), "x");
  EXPECT_EQ(world.list("/").size(), 12u);
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::enumerateItems) fault.entries = 2;
    return fault;
  });
  world.advance(seconds(31));
  EXPECT_EQ(world.list("/").size(), 12u);
  world.extension().setFaults({});
  world.advance(seconds(60));
  EXPECT_EQ(world.list("/").size(), 12u);
}

TEST_F(SynchronisationTest, ListingThatStaysShortIsBelievedInTheEnd) {
  for (int i = 0; i < 12; ++i) world.server().writeFile("/f" + std::to_string(i), "x");
  world.list("/");
  for (int i = 0; i < 11; ++i) world.server().remove("/f" + std::to_string(i));
  world.advance(seconds(120));
  EXPECT_EQ(world.list("/").size(), 1u);
}

TEST_F(SynchronisationTest, FileThatIsHereGoesOnlyAfterASecondLook) {
  world.server().writeFile("/a", "x");
  world.read("/a");
  world.server().remove("/a");
  world.advance(seconds(3));
  world.exists("/a");
  world.advance(milliseconds(500));
  EXPECT_TRUE(world.exists("/a")) << "one listing lacked it";
  world.advance(seconds(5));
  EXPECT_FALSE(world.exists("/a"));
  EXPECT_EQ(world.replica().commands().status().history.files, 1);
}

TEST_F(SynchronisationTest, RefusedNameIsUndone) {
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::createItem) {
      fault.effect = Fault::Effect::none;
      fault.error = posixError(EPERM);
    }
    return fault;
  });
  world.list("/");
  EXPECT_EQ(errorOf([&] { world.makeFolder("/d"); }), posix(EPERM));
  EXPECT_FALSE(world.exists("/d"));
}

TEST_F(SynchronisationTest, WriteWhileBeingSentGoesIntoTheNextRequest) {
  world.server().writeFile("/a", "0");
  world.read("/a");
  world.extension().setLatency(seconds(5));
  world.write("/a", "first");
  world.advance(milliseconds(8000));
  world.write("/a", "second");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "second");
  EXPECT_THAT(world.extension().violations(), IsEmpty());
}

TEST_F(SynchronisationTest, LocalOnlyNamesAreNeverSent) {
  world.list("/");
  world.extension().clearCalls();
  world.write("/.a.txt.swp", "swap");
  EXPECT_TRUE(world.settle());
  EXPECT_THAT(world.server().tree(), IsEmpty());
  world.rename("/.a.txt.swp", "/a.txt");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a.txt"), "swap");
}

TEST_F(SynchronisationTest, EvictedContentsAreFetchedAgain) {
  world.server().writeFile("/a", "x");
  world.read("/a");
  const auto result = world.replica().commands().evict(world.find("/a"));
  EXPECT_EQ(result.evicted, 1);
  EXPECT_EQ(world.replica().commands().status().cachedFiles, 0);
  EXPECT_EQ(world.read("/a"), "x");
}

TEST_F(SynchronisationTest, RemovedWhileOpenStaysReadable) {
  world.server().writeFile("/a", "x");
  const auto handle = world.open("/a", {.read = true, .write = true});
  world.remove("/a");
  EXPECT_TRUE(world.settle());
  ReplicaWorld::writeTo(*handle, "later");
  EXPECT_EQ(ReplicaWorld::readFrom(*handle), "later");
  EXPECT_THAT(world.server().tree(), IsEmpty());
}

TEST_F(SynchronisationTest, FileReplacedBetweenALookAtItsNameAndItsOpeningCanBeOpened) {
  world.server().writeFile("/a", "old");
  world.read("/a");
  const replica::Rid before = world.find("/a");
  world.replica().files().remember(before);
  world.write("/a.new", "new");
  world.rename("/a.new", "/a");
  ASSERT_NE(world.find("/a"), before);
  auto opened = world.await(world.replica().files().openFile(before, {.read = true}));
  EXPECT_EQ(ReplicaWorld::readFrom(*opened), "old");
  opened.reset();
  world.replica().files().forget(before, 1);
  EXPECT_EQ(errorOf([&] { world.replica().files().attributes(before); }), posix(ESTALE));
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "new");
}

TEST_F(SynchronisationTest, DiscardedChangesAreKeptInTheHistory) {
  world.server().writeFile("/a", "theirs");
  world.read("/a");
  world.extension().setDown(true);
  world.write("/a", "mine");
  EXPECT_EQ(world.replica().commands().discard(world.find("/a")), 1u);
  world.extension().setDown(false);
  EXPECT_TRUE(world.settle());
  world.advance(seconds(60));
  EXPECT_EQ(world.read("/a"), "theirs");
  EXPECT_EQ(world.server().read("/a"), "theirs");
  EXPECT_THAT(world.history(), testing::UnorderedElementsAre("mine", "theirs"));
}

}  // namespace
}  // namespace kestrowan::test
