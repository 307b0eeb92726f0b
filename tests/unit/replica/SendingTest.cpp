#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/NSError.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

/// When what is sent, in which order and how much at once.
class SendingTest : public testing::Test {
 protected:
  SendingTest() {
    world.list("/");
    world.extension().clearCalls();
  }

  std::size_t count(CallKind kind) const { return world.extension().count(kind); }

  /// Every call of a kind fails with `error`, and has no effect.
  void fail(CallKind kind, NSError error) {
    world.extension().setFaults([kind, error](const Call& call) {
      Fault fault;
      if (call.kind == kind) fault = {.effect = Fault::Effect::none, .error = error};
      return fault;
    });
  }

  mutable ReplicaWorld world;
};

const NSError kLost{NSURLErrorDomain, NSURLErrorNetworkConnectionLost};

TEST_F(SendingTest, ContentsAreSentOneSecondAfterTheLastClose) {
  world.write("/a", "x");
  world.advance(milliseconds(900));
  world.write("/a", "xx");
  world.advance(milliseconds(900));
  EXPECT_EQ(count(CallKind::createItem), 0u);
  world.advance(milliseconds(300));
  EXPECT_THAT(world.extension().calls(), Contains("createItem /a 2"));
}

TEST_F(SendingTest, SyncedFileIsSentWhileItIsOpen) {
  const auto file = world.create("/a");
  ReplicaWorld::writeTo(*file, "synced");
  EXPECT_TRUE(world.call(world.replica().files().fsync(file)).hasSucceeded());
  world.advance(seconds(2));
  EXPECT_EQ(world.server().read("/a"), "synced");
}

TEST_F(SendingTest, OpenFileIsSentAfterHalfAMinuteWithoutAWrite) {
  const auto file = world.create("/a");
  ReplicaWorld::writeTo(*file, "first");
  world.advance(seconds(20));
  ReplicaWorld::writeTo(*file, "second");
  world.advance(seconds(20));
  EXPECT_EQ(world.server().read("/a"), std::nullopt);
  world.advance(seconds(15));
  EXPECT_EQ(world.server().read("/a"), "second");
}

TEST_F(SendingTest, NamesAreSentAtOnce) {
  world.makeFolder("/docs");
  EXPECT_TRUE(world.server().stat("/docs")) << "before the call returned";
  world.rename("/docs", "/papers");
  EXPECT_TRUE(world.server().stat("/papers"));
  world.removeFolder("/papers");
  EXPECT_FALSE(world.server().stat("/papers"));
}

TEST_F(SendingTest, ChangeOfNamesWaitsThreeSecondsForTheVerdict) {
  world.extension().setLatency(seconds(20));
  const auto before = world.loop().now();
  world.makeFolder("/docs");
  const auto waited = world.loop().now() - before;
  EXPECT_GE(waited, seconds(3));
  EXPECT_LE(waited, seconds(4));
  EXPECT_TRUE(world.settle());
  EXPECT_TRUE(world.server().stat("/docs"));
}

TEST_F(SendingTest, OnlyTheFirstChangeOfNamesWaitsForAServerThatHangs) {
  world.extension().setLatency(minutes(5));
  world.makeFolder("/first");
  const auto before = world.loop().now();
  world.makeFolder("/second");
  EXPECT_EQ(world.loop().now(), before);
}

TEST_F(SendingTest, FolderOfWhichNothingIsKnownIsNotRemovedWhileTheServerHangs) {
  world.server().makeFolder("/far");
  world.advance(seconds(31));
  world.list("/");
  world.extension().setLatency(minutes(5));
  const auto before = world.loop().now();
  EXPECT_EQ(errorOf([&] { world.removeFolder("/far"); }),
            std::string(NSPOSIXErrorDomain) + " " + std::to_string(ETIMEDOUT));
  EXPECT_LE(world.loop().now() - before, seconds(4));
  EXPECT_TRUE(world.server().stat("/far"));
}

TEST_F(SendingTest, RenameOverAFileDoesNotWaitForContentsFromAServerThatHangs) {
  world.server().writeFile("/a", "a");
  world.server().writeFile("/b", "b");
  world.advance(seconds(31));
  world.list("/");
  world.extension().setLatency(minutes(5));
  const auto before = world.loop().now();
  EXPECT_EQ(errorOf([&] { world.rename("/a", "/b"); }),
            std::string(NSPOSIXErrorDomain) + " " + std::to_string(ETIMEDOUT));
  EXPECT_LE(world.loop().now() - before, seconds(10));
}

TEST_F(SendingTest, FourUploadsRunAtOnce) {
  world.extension().setLatency(milliseconds(500));
  for (int number = 0; number < 20; ++number) world.write("/f" + std::to_string(number), "x");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.extension().mostAtOnce(CallKind::createItem), 4u);
}

TEST_F(SendingTest, FourDownloadsOfLargeFilesRunAtOnce) {
  for (int number = 0; number < 20; ++number) {
    world.server().writeFile("/f" + std::to_string(number), std::string(300 * 1024, 'x'));
  }
  world.advance(seconds(31));
  world.list("/");
  world.extension().setLatency(milliseconds(500));
  world.replica().commands().setPinned(replica::kRootRid, true);
  world.advance(seconds(20));
  EXPECT_EQ(count(CallKind::fetchContents), 20u);
  EXPECT_EQ(world.extension().mostAtOnce(CallKind::fetchContents), 4u);
}

TEST_F(SendingTest, EightOtherRequestsRunAtOnce) {
  for (int number = 0; number < 30; ++number) {
    world.server().makeFolder("/f" + std::to_string(number));
  }
  world.advance(seconds(31));
  world.list("/");
  world.extension().setLatency(milliseconds(500));
  for (int number = 0; number < 30; ++number) {
    world.call(world.replica().files().openFolder(world.find("/f" + std::to_string(number))));
  }
  world.advance(seconds(30));
  EXPECT_EQ(world.extension().mostAtOnce(CallKind::enumerateItems), 8u);
}

TEST_F(SendingTest, SmallFilesGoBeforeLargeOnes) {
  const std::string large(std::size_t{2} << 20, 'x');
  for (int number = 0; number < 8; ++number) world.write("/large" + std::to_string(number), large);
  world.write("/small", "x");
  world.extension().setLatency(milliseconds(100));
  EXPECT_TRUE(world.settle());
  const auto calls = world.extension().calls();
  const auto isCreation = [](const std::string& call) { return call.starts_with("createItem"); };
  EXPECT_EQ(*std::find_if(calls.begin(), calls.end(), isCreation), "createItem /small 1");
}

TEST_F(SendingTest, FolderIsMadeBeforeWhatIsInIt) {
  world.extension().setDown(true);
  world.makeFolder("/docs");
  world.makeFolder("/docs/deep");
  world.write("/docs/deep/a", "x");
  world.extension().setDown(false);
  world.extension().setLatency(milliseconds(300));
  world.extension().clearCalls();
  EXPECT_TRUE(world.settle());
  std::vector<std::string> creations;
  for (const auto& call : world.extension().calls()) {
    if (call.starts_with("createItem")) creations.push_back(call);
  }
  EXPECT_THAT(creations, ElementsAre("createItem /docs folder", "createItem /docs/deep folder",
                                     "createItem /docs/deep/a 1"));
}

TEST_F(SendingTest, NothingBelowAFolderIsSentWhileItIsRenamed) {
  world.server().makeFolder("/docs");
  world.server().writeFile("/docs/a", "old");
  world.advance(seconds(31));
  auto file = world.open("/docs/a", {.read = true, .write = true});
  world.extension().setLatency(seconds(10));
  world.extension().clearCalls();
  world.rename("/docs", "/papers");
  ReplicaWorld::writeTo(*file, "new");
  file.reset();
  world.advance(seconds(3));
  EXPECT_THAT(world.extension().calls(), ElementsAre("modifyItem /docs -> /papers"));
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/papers/a"), "new");
}

TEST_F(SendingTest, WhoLeavesANameGoesBeforeWhoTakesIt) {
  world.server().writeFile("/a", "a");
  world.server().writeFile("/b", "b");
  world.advance(seconds(31));
  world.list("/");
  world.extension().setDown(true);
  world.rename("/a", "/c");
  world.rename("/b", "/a");
  world.extension().setDown(false);
  world.extension().clearCalls();
  EXPECT_TRUE(world.settle());
  std::vector<std::string> moves;
  for (const auto& call : world.extension().calls()) {
    if (call.starts_with("modifyItem")) moves.push_back(call);
  }
  EXPECT_THAT(moves, ElementsAre("modifyItem /a -> /c", "modifyItem /b -> /a"));
}

TEST_F(SendingTest, WhatFailsIsTriedAgainMoreAndMoreRarely) {
  fail(CallKind::createItem, kLost);
  world.write("/a", "x");
  world.advance(seconds(8));
  const std::size_t soon = count(CallKind::createItem);
  EXPECT_GE(soon, 2u);
  world.advance(minutes(8));
  const std::size_t later = count(CallKind::createItem);
  EXPECT_LE(later, 12u);
  EXPECT_GT(later, soon);
  world.extension().setFaults({});
  world.advance(minutes(20));
  EXPECT_EQ(world.server().read("/a"), "x");
}

TEST_F(SendingTest, RetryTriesAtOnce) {
  fail(CallKind::createItem, kLost);
  world.write("/a", "x");
  world.advance(minutes(8));
  world.extension().setFaults({});
  world.replica().commands().retry(world.find("/a"));
  world.advance(seconds(3));
  EXPECT_EQ(world.server().read("/a"), "x");
}

TEST_F(SendingTest, WhatIsRefusedForGoodWaitsForTheUser) {
  fail(CallKind::createItem, NSError(NSPOSIXErrorDomain, EPERM));
  world.write("/a", "x");
  world.advance(minutes(60));
  EXPECT_EQ(count(CallKind::createItem), 1u);
  EXPECT_EQ(world.replica().commands().itemStatus(world.find("/a")).state,
            replica::SyncState::refused);
  world.extension().setFaults({});
  world.replica().commands().retry(world.find("/a"));
  world.advance(seconds(3));
  EXPECT_EQ(world.server().read("/a"), "x");
}

TEST_F(SendingTest, FullServerIsAskedEveryQuarterOfAnHour) {
  fail(CallKind::createItem, NSFileProviderError(NSFileProviderErrorCode::insufficientQuota));
  world.write("/a", "x");
  world.advance(minutes(14));
  EXPECT_EQ(count(CallKind::createItem), 1u);
  world.advance(minutes(6));
  EXPECT_EQ(count(CallKind::createItem), 2u);
}

TEST_F(SendingTest, AServerThatDoesNotAnswerIsToldOfBeforeItCountsAsOutOfReach) {
  const auto ask = [&] {
    world.call(world.replica().askForRoot());
    world.advance(seconds(1));
    return world.replica().commands().status();
  };
  world.crash();
  EXPECT_EQ(world.replica().commands().status().unanswered, "There has been no answer so far.");
  EXPECT_EQ(ask().unanswered, std::nullopt);
  world.extension().setDown(true);
  world.advance(seconds(40));
  world.list("/");
  const auto down = world.replica().commands().status();
  EXPECT_FALSE(down.offline);
  ASSERT_TRUE(down.unanswered);
  EXPECT_NE(down.unanswered, "There has been no answer so far.");
  world.extension().setDown(false);
  world.extension().clearCalls();
  EXPECT_EQ(ask().unanswered, std::nullopt);
  EXPECT_EQ(count(CallKind::enumerateItems), 1u) << "whatever is known, the provider is asked";
}

TEST_F(SendingTest, AFileThatCannotBeWrittenHereSaysNothingOfTheServer) {
  world.server().writeFile("/a", "12345");
  world.advance(minutes(1));
  world.list("/");
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::fetchContents) {
      fault.error = NSError(NSURLErrorDomain, NSURLErrorCannotWriteToFile);
    }
    return fault;
  });
  for (int i = 0; i < 5; ++i) EXPECT_NE(errorOf([&] { world.read("/a"); }), "");
  EXPECT_FALSE(world.replica().commands().status().offline);
  EXPECT_EQ(world.replica().commands().status().unanswered, std::nullopt);
}

TEST_F(SendingTest, WithoutAServerOneAttemptAfterAnotherFindsOutWhenItIsBack) {
  world.extension().setDown(true);
  world.write("/a", "x");
  world.advance(seconds(60));
  EXPECT_TRUE(world.replica().commands().status().offline);
  world.extension().clearCalls();
  world.advance(minutes(10));
  EXPECT_LE(world.extension().count(), 31u) << "one every 20 to 40 seconds";
  EXPECT_GE(world.extension().count(), 14u);
  EXPECT_EQ(count(CallKind::createItem), 0u) << "only the root is listed";
  world.extension().setDown(false);
  world.advance(seconds(50));
  EXPECT_FALSE(world.replica().commands().status().offline);
  EXPECT_EQ(world.server().read("/a"), "x") << "whatever had to wait goes at once";
}

}  // namespace
}  // namespace kestrowan::test
