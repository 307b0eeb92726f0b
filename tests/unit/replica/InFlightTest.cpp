#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/NSError.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using testing::Pair;
using testing::SizeIs;

/// What applications do while requests are on their way, and what a power failure leaves of it.
class InFlightTest : public testing::Test {
 protected:
  InFlightTest() { world.list("/"); }

  /// Puts a file on the server, and lets time pass until the root's listing has it.
  void writeThere(std::string_view path, std::string_view bytes) {
    world.server().writeFile(path, bytes);
    world.advance(seconds(31));
    world.list("/");
  }

  /// The first call of a kind has its effect or not, and ends with `error` when it is released.
  void hold(CallKind kind, NSError error, Fault::Effect effect = Fault::Effect::all) {
    world.extension().setFaults([=, done = std::make_shared<bool>(false)](const Call& call) {
      Fault fault;
      if (call.kind == kind && !std::exchange(*done, true)) {
        fault.hangs = true;
        fault.effect = effect;
        fault.error = error;
      }
      return fault;
    });
  }
  void waitUntilSending(CallKind kind) {
    ASSERT_TRUE(world.loop().runUntil([&] { return world.extension().count(kind) > 0; },
                                      std::chrono::minutes(1)));
    world.loop().runUntilIdle();
  }
  void settle() {
    ASSERT_TRUE(world.settle());
    world.advance(seconds(70));
    ASSERT_TRUE(world.settle());
    EXPECT_EQ(world.tree(), world.server().tree());
    EXPECT_THAT(world.extension().violations(), IsEmpty());
  }
  void fsync(const std::shared_ptr<replica::OpenFile>& file) {
    ASSERT_TRUE(world.call(world.replica().files().fsync(file)).hasSucceeded());
  }

  /// The replica's directory as a power failure now would leave it, if everything but the rows had
  /// reached the disk; the rows are those of `rows`, which is the name of an earlier copy.
  std::string copyNow(const std::string& name) const {
    const std::string copy = world.directory() + "." + name;
    fs::remove_all(copy);
    fs::copy(world.directory(), copy, fs::copy_options::recursive);
    return copy;
  }
  void failPower(const std::string& rows, std::shared_ptr<replica::OpenFile> file = nullptr) {
    const std::string now = copyNow("now");
    file.reset();
    world.crashUnconnected([&] {
      for (const auto& entry : fs::directory_iterator(world.directory())) {
        fs::remove_all(entry.path());
      }
      fs::copy(now, world.directory(), fs::copy_options::recursive);
      for (const char* name : {"/replica.db", "/replica.db-wal"}) {
        fs::remove(world.directory() + name);
        fs::copy_file(rows + name, world.directory() + name);
      }
      std::ofstream(world.directory() + "/in-use") << "another run of the machine";
    });
    fs::remove_all(now);
    fs::remove_all(rows);
  }

  ReplicaWorld world;
};

const NSError kLost(NSURLErrorDomain, NSURLErrorNetworkConnectionLost);

// ---- removals ----------------------------------------------------------------------------------

TEST_F(InFlightTest, FileRemovedWhileItIsSentDoesNotComeBackWithALostAnswer) {
  hold(CallKind::createItem, kLost);
  world.write("/a", "x");
  waitUntilSending(CallKind::createItem);
  world.remove("/a");
  world.extension().releaseHung();
  settle();
  EXPECT_THAT(world.server().tree(), IsEmpty());
}

TEST_F(InFlightTest, FileRemovedWhileItIsSentDoesNotComeBackAfterTheProcessDied) {
  hold(CallKind::createItem, kLost);
  world.write("/a", "x");
  waitUntilSending(CallKind::createItem);
  world.remove("/a");
  world.crash();
  settle();
  EXPECT_THAT(world.server().tree(), IsEmpty());
}

TEST_F(InFlightTest, FileRemovedWhileItIsSentIsGivenUpWhenItNeverArrived) {
  hold(CallKind::createItem, kLost, Fault::Effect::none);
  world.write("/a", "x");
  waitUntilSending(CallKind::createItem);
  world.remove("/a");
  world.extension().releaseHung();
  settle();
  EXPECT_THAT(world.server().tree(), IsEmpty());
  EXPECT_EQ(world.extension().count(CallKind::deleteItem), 0u);
}

TEST_F(InFlightTest, FileRemovedWhileItIsSentIsGivenUpWhenItIsRefused) {
  for (const NSError& refusal :
       {posixError(EPERM), NSFileProviderError(NSFileProviderErrorCode::directoryNotEmpty),
        NSError(NSURLErrorDomain, NSURLErrorCannotConnectToHost),
        NSError(NSCocoaErrorDomain, NSFileWriteFileExistsError),
        NSFileProviderError(NSFileProviderErrorCode::noSuchItem),
        NSFileProviderError(NSFileProviderErrorCode::insufficientQuota)}) {
    world.extension().clearCalls();
    hold(CallKind::createItem, refusal, Fault::Effect::none);
    world.write("/a", "x");
    waitUntilSending(CallKind::createItem);
    world.remove("/a");
    world.extension().releaseHung();
    settle();
    EXPECT_THAT(world.server().tree(), IsEmpty());
  }
}

TEST_F(InFlightTest, SavedFileRemovedAfterALostAnswerStaysRemoved) {
  writeThere("/a", "old");
  hold(CallKind::modifyItem, kLost);
  world.write("/a", "new");
  waitUntilSending(CallKind::modifyItem);
  world.extension().releaseHung();
  world.loop().runUntilIdle();
  world.remove("/a");
  settle();
  EXPECT_THAT(world.server().tree(), IsEmpty());
}

TEST_F(InFlightTest, MovedFileRemovedAfterALostAnswerStaysRemoved) {
  writeThere("/a", "x");
  hold(CallKind::modifyItem, kLost);
  world.rename("/a", "/b");
  world.extension().releaseHung();
  world.loop().runUntilIdle();
  world.remove("/b");
  settle();
  EXPECT_THAT(world.server().tree(), IsEmpty());
}

TEST_F(InFlightTest, FolderRemovedWhileItIsMadeDoesNotComeBackWithALostAnswer) {
  hold(CallKind::createItem, kLost);
  world.makeFolder("/d");  // nobody waits longer than three seconds for the server's word
  world.removeFolder("/d");
  world.extension().releaseHung();
  settle();
  EXPECT_THAT(world.server().tree(), IsEmpty());
}

TEST_F(InFlightTest, FolderRemovedWithAFileThatWasBeingSentDoesNotComeBack) {
  world.makeFolder("/d");
  hold(CallKind::createItem, kLost);
  world.write("/d/a", "x");
  world.advance(seconds(2));
  ASSERT_EQ(world.extension().count(CallKind::createItem), 2u);
  world.remove("/d/a");
  world.extension().releaseHung();
  world.removeFolder("/d");
  settle();
  EXPECT_THAT(world.server().tree(), IsEmpty());
}

TEST_F(InFlightTest, NewFileInThePlaceOfOneWithALostAnswerIsItsNewContents) {
  hold(CallKind::createItem, kLost);
  world.write("/a", "first");
  waitUntilSending(CallKind::createItem);
  world.remove("/a");
  world.write("/a", "second");
  world.extension().releaseHung();
  settle();
  EXPECT_THAT(world.server().tree(), ElementsAre(Pair("/a", Optional(std::string("second")))));
}

TEST_F(InFlightTest, SaveByRenamingOverANewFileWithALostAnswerIsItsNewContents) {
  hold(CallKind::createItem, kLost);
  world.write("/a", "first");
  waitUntilSending(CallKind::createItem);
  world.write("/a.new", "second");
  world.rename("/a.new", "/a");
  world.extension().releaseHung();
  settle();
  EXPECT_THAT(world.server().tree(), ElementsAre(Pair("/a", Optional(std::string("second")))));
}

TEST_F(InFlightTest, ARequestThatMetNoServerCannotLandLater) {
  writeThere("/a", "old");
  world.read("/a");
  world.extension().setDown(true);
  world.write("/a", "ours");
  world.advance(seconds(10));
  world.extension().setDown(false);
  settle();
  EXPECT_EQ(world.server().read("/a"), "ours");
  world.server().writeFile("/a", "theirs");
  world.advance(minutes(1));
  EXPECT_EQ(world.read("/a"), "theirs");
  EXPECT_THAT(world.replica().commands().status().conflicts, IsEmpty());
}

TEST_F(InFlightTest, SaveByRenamingOverAFileWithALostAnswerIsNoConflict) {
  for (const bool released : {false, true}) {
    // What was sent before cannot land any more.
    world.advance(minutes(11));
    writeThere("/a", "old");
    world.read("/a");
    world.extension().clearCalls();
    hold(CallKind::modifyItem, kLost);
    world.write("/a", "first");
    waitUntilSending(CallKind::modifyItem);
    if (released) {
      world.extension().releaseHung();
      world.loop().runUntilIdle();
    }
    world.write("/a.new", "second");
    world.rename("/a.new", "/a");
    world.extension().releaseHung();
    settle();
    EXPECT_THAT(world.server().tree(), ElementsAre(Pair("/a", Optional(std::string("second")))));
    EXPECT_THAT(world.replica().commands().status().conflicts, IsEmpty());
    EXPECT_EQ(world.extension().count(CallKind::deleteItem), 0u);
  }
}

TEST_F(InFlightTest, DiscardingWhatWasRemovedWhileItIsSentIsHarmless) {
  hold(CallKind::createItem, kLost);
  world.write("/a", "x");
  waitUntilSending(CallKind::createItem);
  world.remove("/a");
  world.extension().setDown(true);
  world.extension().releaseHung();
  world.advance(seconds(20));
  world.replica().commands().discard(replica::kRootRid);
  world.extension().setDown(false);
  settle();
}

TEST_F(InFlightTest, FolderMadeHereIsKnownWithoutAServer) {
  world.makeFolder("/d");
  settle();
  world.makeFolder("/d/e");
  world.extension().setDown(true);
  world.advance(seconds(60));
  world.write("/d/e/a", "x");
  EXPECT_THAT(world.list("/d/e"), ElementsAre("a"));
  world.extension().setDown(false);
  settle();
}

TEST_F(InFlightTest, FileSavedAfterAMoveWithoutAnAnswerIsSentOnce) {
  world.write("/a", "x");
  ASSERT_TRUE(world.settle());
  hold(CallKind::modifyItem, kLost, Fault::Effect::none);
  world.rename("/a", "/b");
  waitUntilSending(CallKind::modifyItem);
  world.rename("/b", "/a");
  world.extension().releaseHung();
  ASSERT_TRUE(world.settle());
  world.extension().clearCalls();
  world.write("/a", "more");
  settle();
  EXPECT_EQ(world.extension().count(CallKind::modifyItem), 1U);
}

TEST_F(InFlightTest, FileThatChangedThereBeforeItsMoveIsNotRemovedUnseen) {
  world.write("/a", "x");
  ASSERT_TRUE(world.settle());
  world.list("/");
  world.server().writeFile("/a", "theirs");
  world.extension().setFaults([done = std::make_shared<bool>(false)](const Call& call) {
    Fault fault;
    fault.hangs = call.kind == CallKind::modifyItem && !std::exchange(*done, true);
    return fault;
  });
  world.rename("/a", "/b");
  world.remove("/b");
  world.extension().releaseHung();
  settle();
  EXPECT_THAT(world.server().tree(), ElementsAre(Pair("/b", Optional(std::string("theirs")))));
}

TEST_F(InFlightTest, FolderThatIsGoneWithAFileOnItsWayOutOfItDoesNotHoldUpTheFolderAboveIt) {
  world.makeFolder("/d");
  world.write("/d/a", "x");
  ASSERT_TRUE(world.settle());
  hold(CallKind::modifyItem, kLost, Fault::Effect::none);
  world.rename("/d/a", "/b");
  waitUntilSending(CallKind::modifyItem);
  world.extension().releaseHung();
  world.server().remove("/d");
  world.server().writeFile("/news", "y");
  world.advance(seconds(40));
  EXPECT_THAT(world.list("/"), testing::Contains("news"));
  settle();
  EXPECT_THAT(world.server().tree(), testing::Contains(Pair("/b", Optional(std::string("x")))));
}

// ---- writes ------------------------------------------------------------------------------------

TEST_F(InFlightTest, WritesAfterTheSameFileWasFoundThereArrive) {
  world.extension().setDown(true);
  const auto file = world.create("/a");
  ReplicaWorld::writeTo(*file, "same");
  fsync(file);
  world.advance(seconds(10));
  world.server().writeFile("/a", "same");
  world.extension().setDown(false);
  world.advance(seconds(40));
  ReplicaWorld::writeTo(*file, "more", 4);
  fsync(file);
  settle();
  EXPECT_EQ(world.server().read("/a"), "samemore");
  EXPECT_THAT(world.server().tree(), SizeIs(1));
}

TEST_F(InFlightTest, WritesWhileTheSameFileIsComparedArrive) {
  world.extension().setDown(true);
  const auto file = world.create("/a");
  ReplicaWorld::writeTo(*file, "same");
  fsync(file);
  world.advance(seconds(10));
  world.server().writeFile("/a", "same");
  world.extension().setDown(false);
  world.extension().setLatency(seconds(4));
  ASSERT_TRUE(
      world.loop().runUntil([&] { return world.extension().count(CallKind::fetchContents) > 0; },
                            std::chrono::minutes(2)));
  world.advance(milliseconds(3990));
  ReplicaWorld::writeTo(*file, "more", 4);
  world.advance(seconds(40));
  world.extension().setLatency(seconds(0));
  fsync(file);
  settle();
  EXPECT_THAT(world.server().tree(),
              testing::Contains(Pair(testing::_, Optional(std::string("samemore")))));
}

TEST_F(InFlightTest, SaveAfterOneWhoseAnswerTheServerDidNotLiveToGiveIsNoConflict) {
  writeThere("/a", "old");
  world.read("/a");
  for (const NSError& error : {NSError(NSURLErrorDomain, NSURLErrorCannotConnectToHost),
                               NSFileProviderError(NSFileProviderErrorCode::notAuthenticated)}) {
    world.extension().clearCalls();
    hold(CallKind::modifyItem, error);
    world.write("/a", "first");
    waitUntilSending(CallKind::modifyItem);
    world.write("/a", "second");
    world.extension().releaseHung();
    settle();
    EXPECT_THAT(world.server().tree(), ElementsAre(Pair("/a", Optional(std::string("second")))));
    world.connect();
  }
}

TEST_F(InFlightTest, FileChangedThereAndMovedHereShowsWhatIsThere) {
  writeThere("/a", "1");
  world.read("/a");
  world.extension().setDown(true);
  world.rename("/a", "/b");
  world.advance(seconds(5));
  world.server().writeFile("/a", "2");
  world.extension().setDown(false);
  settle();
  EXPECT_THAT(world.server().tree(), ElementsAre(Pair("/b", Optional(std::string("2")))));
}

TEST_F(InFlightTest, FileChangedThereAndMovedAndChangedHereKeepsBoth) {
  writeThere("/a", "1");
  world.read("/a");
  world.extension().setDown(true);
  world.rename("/a", "/b");
  world.advance(seconds(5));
  world.server().writeFile("/a", "2");
  world.write("/b", "3");
  world.extension().setDown(false);
  settle();
  std::vector<std::string> contents;
  for (const auto& entry : world.server().tree()) contents.push_back(*entry.second);
  EXPECT_THAT(contents, testing::UnorderedElementsAre("2", "3"));
}

// ---- power -------------------------------------------------------------------------------------

TEST_F(InFlightTest, SyncedContentsOutliveTheirReplacementUntilThatIsDurable) {
  world.extension().setDown(true);
  auto first = world.create("/a");
  ReplicaWorld::writeTo(*first, "synced");
  fsync(first);
  const std::string rows = copyNow("rows");
  world.write("/a.new", "newer");
  world.rename("/a.new", "/a");
  failPower(rows, std::move(first));
  EXPECT_EQ(world.read("/a"), "synced");
}

TEST_F(InFlightTest, SyncedContentsOutliveALaterWriteWhileTheyAreSent) {
  writeThere("/a", "old");
  auto file = world.open("/a", {.read = true, .write = true});
  ReplicaWorld::writeTo(*file, "synced");
  fsync(file);
  const std::string rows = copyNow("rows");
  hold(CallKind::modifyItem, kLost, Fault::Effect::none);
  waitUntilSending(CallKind::modifyItem);
  ReplicaWorld::writeTo(*file, "later!");
  world.extension().setDown(true);
  world.extension().releaseHung();
  world.advance(seconds(2));
  failPower(rows, std::move(file));
  EXPECT_EQ(world.read("/a"), "synced");
}

TEST_F(InFlightTest, ReplacedContentsThatAreNoVersionAreGoneAfterAWhile) {
  world.extension().setDown(true);
  world.advance(seconds(1));
  world.write("/a", "first");
  world.write("/a", "second");
  world.write("/a", "third");
  world.advance(seconds(10));
  std::vector<std::string> bytes;
  for (const auto& entry : fs::directory_iterator(world.directory() + "/contents")) {
    std::ifstream file(entry.path(), std::ios::binary);
    bytes.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  EXPECT_THAT(bytes, testing::UnorderedElementsAre("first", "third"));
  EXPECT_THAT(world.history(), ElementsAre("first"));
}

TEST_F(InFlightTest, UploadWhoseRecordWasLostIsNoConflict) {
  writeThere("/a", "old");
  auto file = world.open("/a", {.read = true, .write = true});
  ReplicaWorld::writeTo(*file, "new");
  fsync(file);
  const std::string rows = copyNow("rows");
  settle();
  EXPECT_EQ(world.server().read("/a"), "new");
  failPower(rows, std::move(file));
  world.connect();
  settle();
  EXPECT_EQ(world.server().read("/a"), "new");
  EXPECT_THAT(world.server().tree(), SizeIs(1));
  EXPECT_THAT(world.replica().commands().status().conflicts, IsEmpty());
}

TEST_F(InFlightTest, CreationWhoseRecordWasLostIsNotMadeTwice) {
  auto file = world.create("/a");
  ReplicaWorld::writeTo(*file, "new");
  fsync(file);
  const std::string rows = copyNow("rows");
  settle();
  failPower(rows, std::move(file));
  world.connect();
  settle();
  EXPECT_THAT(world.server().tree(), SizeIs(1));
}

TEST_F(InFlightTest, RenameWhoseRecordWasLostIsNotMadeTwice) {
  writeThere("/a", "x");
  world.read("/a");
  world.extension().setDown(true);
  world.rename("/a", "/b");
  world.replica().files().fsyncFolder(replica::kRootRid);
  const std::string rows = copyNow("rows");
  world.extension().setDown(false);
  settle();
  failPower(rows);
  world.connect();
  settle();
  EXPECT_THAT(world.server().tree(), ElementsAre(Pair("/b", Optional(std::string("x")))));
}

}  // namespace
}  // namespace kestrowan::test
