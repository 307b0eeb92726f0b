#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/NSError.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;

const NSError kTransient{NSURLErrorDomain, NSURLErrorNetworkConnectionLost};

std::string posix(int code) {
  return std::string(NSPOSIXErrorDomain) + " " + std::to_string(code);
}

/// What waits is sent in the end by itself, and whoever waits for it is answered.
class StuckTest : public testing::Test {
 protected:
  explicit StuckTest(replica::Options options = {}) : world({}, std::move(options)) {
    world.list("/");
  }

  void failWithoutEffect(CallKind kind, NSError error) {
    world.extension().setFaults([kind, error](const Call& call) {
      Fault fault;
      if (call.kind == kind) fault = {.effect = Fault::Effect::none, .error = error};
      return fault;
    });
  }
  void answerNothing(CallKind kind) {
    world.extension().setFaults([kind](const Call& call) {
      Fault fault;
      if (call.kind == kind) fault.error = kTransient;
      return fault;
    });
  }

  mutable ReplicaWorld world;
};

TEST_F(StuckTest, RenameThatWaitsSurvivesNewContentsThere) {
  world.server().writeFile("/a", "old");
  world.advance(seconds(31));
  EXPECT_EQ(world.read("/a"), "old");
  failWithoutEffect(CallKind::modifyItem, kTransient);
  world.rename("/a", "/b");
  world.server().writeFile("/a", "theirs");
  world.advance(seconds(40));
  world.extension().setFaults({});
  world.advance(minutes(10));
  EXPECT_EQ(world.server().read("/b"), "theirs");
  EXPECT_EQ(world.server().read("/a"), std::nullopt);
}

TEST_F(StuckTest, NewFileIsSentWhenWhatItWaitedForIsDropped) {
  world.server().makeFolder("/x");
  world.advance(seconds(31));
  world.list("/");
  world.list("/x");
  failWithoutEffect(CallKind::deleteItem, kTransient);
  world.removeFolder("/x");
  world.write("/x", "a file now");
  world.advance(seconds(20));
  // Somebody else removes it, and a listing says so before the next try.
  world.server().remove("/x");
  world.advance(seconds(3));
  world.list("/");
  world.advance(seconds(3));
  world.extension().setFaults({});
  world.advance(minutes(10));
  EXPECT_EQ(world.server().read("/x"), "a file now");
}

TEST_F(StuckTest, ChangeThatWasTakenBackWhileNobodyKnewIsLookedAt) {
  world.write("/a", "contents");
  EXPECT_TRUE(world.settle());
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::modifyItem) fault.error = kTransient;
    if (call.kind == CallKind::enumerateItems) {
      fault = {.effect = Fault::Effect::none, .error = kTransient};
    }
    return fault;
  });
  world.rename("/a", "/b");
  EXPECT_EQ(world.server().read("/b"), "contents") << "the request took effect";
  world.rename("/b", "/a");
  ASSERT_EQ(world.replica().commands().status().pending.size(), 1u);
  EXPECT_EQ(world.replica().commands().status().pending[0].changes, "verify");
  world.extension().setFaults({});
  world.advance(minutes(10));
  EXPECT_THAT(world.list("/"), ElementsAre("a"));
  EXPECT_EQ(world.server().read("/a"), "contents");
  world.write("/b", "another");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/b"), "another");
}

TEST_F(StuckTest, WhoeverWaitsIsAnsweredByTheLookAfterALostAnswer) {
  answerNothing(CallKind::createItem);
  const auto before = world.loop().now();
  world.makeFolder("/d");
  EXPECT_LT(world.loop().now() - before, milliseconds(2500));
  EXPECT_TRUE(world.server().stat("/d"));
}

TEST_F(StuckTest, FileThatIsSyncedAllTheTimeIsSent) {
  const auto file = world.create("/a");
  for (int round = 0; round < 20; ++round) {
    ReplicaWorld::writeTo(*file, "x", round);
    EXPECT_TRUE(world.call(world.replica().files().fsync(file)).hasSucceeded());
    world.advance(milliseconds(500));
  }
  EXPECT_TRUE(world.server().read("/a"));
}

TEST_F(StuckTest, OpenFileIsSentAtMostEveryHalfMinute) {
  const auto file = world.create("/a");
  for (int round = 0; round < 60; ++round) {
    ReplicaWorld::writeTo(*file, "x", round);
    EXPECT_TRUE(world.call(world.replica().files().fsync(file)).hasSucceeded());
    world.advance(seconds(2));
  }
  const auto sent =
      world.extension().count(CallKind::createItem) + world.extension().count(CallKind::modifyItem);
  EXPECT_GE(sent, 3u);
  EXPECT_LE(sent, 5u);
}

TEST_F(StuckTest, ClockThatIsSetBackHoldsNothingUp) {
  world.write("/a", "contents");
  world.loop().stepWallClock(-std::chrono::hours(2));
  world.advance(seconds(3));
  EXPECT_EQ(world.server().read("/a"), "contents");
}

TEST_F(StuckTest, FileIsFetchedWhileItsFolderMoves) {
  world.server().makeFolder("/d");
  world.server().writeFile("/d/a", "contents");
  world.advance(seconds(31));
  world.list("/");
  world.list("/d");
  // The fetch begins when the file is no longer in its old place, and nobody here knows yet.
  const auto file = world.find("/d/a");
  std::optional<test::BegunCall<std::shared_ptr<replica::OpenFile>>> opened;
  world.extension().setFaults([&](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::modifyItem) {
      fault.afterFirstRequest = [&] {
        opened.emplace(world.call(world.replica().files().openFile(file, {.read = true})));
      };
    }
    return fault;
  });
  world.extension().setLatency(milliseconds(500));
  world.rename("/d", "/e");
  ASSERT_TRUE(world.loop().runUntil([&] { return opened && opened->hasEnded(); }, minutes(1)));
  ASSERT_TRUE(opened->hasSucceeded());
  EXPECT_EQ(ReplicaWorld::readFrom(*opened->result()), "contents");
}

TEST_F(StuckTest, UploadComesBeforeTheRemovalOfItsSourceAfterARestartToo) {
  world.write("/a", "new");
  world.write("/b", "old");
  EXPECT_TRUE(world.settle());
  world.extension().setDown(true);
  world.rename("/a", "/b");
  world.crashUnconnected();
  world.connect([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::modifyItem) {
      fault = {.effect = Fault::Effect::none,
               .error = NSFileProviderError(NSFileProviderErrorCode::insufficientQuota)};
    }
    return fault;
  });
  world.advance(minutes(5));
  EXPECT_EQ(world.server().read("/a"), "new") << "the only copy there is";
  world.extension().setFaults({});
  world.advance(minutes(20));
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/b"), "new");
  EXPECT_EQ(world.server().read("/a"), std::nullopt);
}

TEST_F(StuckTest, RefusalThatComesTooLateForTheCallLeavesWhatWasMadeHere) {
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::createItem) {
      fault = {.effect = Fault::Effect::none,
               .error = NSError(NSPOSIXErrorDomain, EPERM),
               .delay = seconds(5)};
    }
    return fault;
  });
  world.makeFolder("/d");
  world.advance(seconds(10));
  EXPECT_TRUE(world.exists("/d"));
  ASSERT_EQ(world.replica().commands().status().pending.size(), 1u);
  EXPECT_EQ(world.replica().commands().status().pending[0].state, replica::SyncState::refused);
}

TEST_F(StuckTest, FolderIsListedWhileTheFolderAboveMoves) {
  world.server().makeFolder("/p");
  world.server().makeFolder("/p/sub");
  world.server().writeFile("/p/sub/a", "contents");
  world.advance(seconds(31));
  world.list("/");
  world.list("/p");
  const auto folder = world.find("/p/sub");
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::enumerateItems) fault.delay = seconds(2);
    return fault;
  });
  const auto listed = world.call(world.replica().files().openFolder(folder));
  world.rename("/p", "/q");
  ASSERT_TRUE(world.loop().runUntil([&] { return listed.hasEnded(); }, minutes(1)));
  ASSERT_TRUE(listed.hasSucceeded());
  EXPECT_EQ(listed.result()->entries.size(), 1u);
}

TEST_F(StuckTest, FileThatGetsANameThatStaysHereWhileItIsSentLeavesNothingThere) {
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::createItem) fault.delay = seconds(5);
    return fault;
  });
  world.write("/video", "contents");
  world.advance(seconds(3));
  world.rename("/video", "/video.part");
  world.advance(seconds(20));
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/video"), std::nullopt);
  EXPECT_EQ(world.read("/video.part"), "contents");
  world.rename("/video.part", "/video");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/video"), "contents");
}

TEST_F(StuckTest, WaitingEndsWhenWhatIsLeftWaitsForWhatWasRefused) {
  failWithoutEffect(CallKind::createItem, NSError(NSPOSIXErrorDomain, EPERM));
  world.extension().setLatency(seconds(5));
  world.makeFolder("/d");
  world.write("/d/a", "contents");
  world.advance(minutes(1));
  const auto before = world.loop().now();
  EXPECT_FALSE(world.settle());
  EXPECT_LT(world.loop().now() - before, minutes(1));
}

class WaitingCloseTest : public StuckTest {
 protected:
  WaitingCloseTest()
      : StuckTest([] {
          replica::Options options;
          options.closeWaits = true;
          return options;
        }()) {}

  std::string closeError(const std::shared_ptr<replica::OpenFile>& file) {
    const auto closing = world.call(world.replica().files().flush(file));
    if (!world.loop().runUntil([&] { return closing.hasEnded(); }, minutes(20))) return "hangs";
    return errorOf([&] { closing.result(); });
  }
};

TEST_F(WaitingCloseTest, NewFileThatIsRefusedStaysHere) {
  failWithoutEffect(CallKind::createItem, NSError(NSPOSIXErrorDomain, EPERM));
  auto file = world.create("/a");
  ReplicaWorld::writeTo(*file, "kept");
  EXPECT_EQ(closeError(file), posix(EPERM));
  file.reset();
  EXPECT_EQ(world.read("/a"), "kept");
}

TEST_F(WaitingCloseTest, NewFileWhoseNameIsTakenGetsAnother) {
  failWithoutEffect(CallKind::createItem,
                    NSFileProviderError(NSFileProviderErrorCode::filenameCollision));
  auto file = world.create("/a");
  ReplicaWorld::writeTo(*file, "kept");
  EXPECT_NE(closeError(file), "");
  file.reset();
  world.extension().setFaults({});
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a (2)"), "kept");
}

TEST_F(WaitingCloseTest, SaysThatNothingArrivedWhereThereIsNoServer) {
  world.extension().setDown(true);
  auto file = world.create("/a");
  ReplicaWorld::writeTo(*file, "contents");
  EXPECT_NE(closeError(file), "");
  file.reset();
  world.extension().setDown(false);
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "contents");
}

TEST_F(WaitingCloseTest, IsNotAnsweredByTheArrivalOfEarlierContents) {
  auto file = world.create("/a");
  ReplicaWorld::writeTo(*file, "one");
  world.extension().setLatency(seconds(5));
  world.call(world.replica().files().fsync(file));
  world.advance(seconds(8));
  ReplicaWorld::writeTo(*file, "two");
  EXPECT_EQ(closeError(file), "");
  EXPECT_EQ(world.server().read("/a"), "two");
}

/// Passes everything on to another provider, but loses the first download and its handler.
class LosingProvider : public NSFileProviderReplicatedExtension {
 public:
  explicit LosingProvider(InMemoryExtension& inner) : inner_(inner) {}

  void invalidate() override {}
  std::shared_ptr<NSFileProviderEnumerator> enumerator(
      const NSFileProviderItemIdentifier& forContainer,
      const NSFileProviderRequest& request) override {
    return inner_.enumerator(forContainer, request);
  }
  std::shared_ptr<NSProgress> item(const NSFileProviderItemIdentifier& forIdentifier,
                                   const NSFileProviderRequest& request,
                                   ItemCompletion completionHandler) override {
    return inner_.item(forIdentifier, request, std::move(completionHandler));
  }
  std::shared_ptr<NSProgress> fetchContents(const NSFileProviderItemIdentifier& forIdentifier,
                                            const std::optional<NSFileProviderItemVersion>& version,
                                            const NSFileProviderRequest& request,
                                            FetchCompletion completionHandler) override {
    if (lost_ < kAttempts) {
      ++lost_;
      return std::make_shared<NSProgress>();
    }
    return inner_.fetchContents(forIdentifier, version, request, std::move(completionHandler));
  }
  std::shared_ptr<NSProgress> createItem(NSFileProviderItemPtr basedOnTemplate,
                                         NSFileProviderItemFields fields,
                                         std::optional<NSURL> contents,
                                         NSFileProviderCreateItemOptions options,
                                         const NSFileProviderRequest& request,
                                         WriteCompletion completionHandler) override {
    return inner_.createItem(std::move(basedOnTemplate), fields, std::move(contents), options,
                             request, std::move(completionHandler));
  }
  std::shared_ptr<NSProgress> modifyItem(NSFileProviderItemPtr item,
                                         const NSFileProviderItemVersion& baseVersion,
                                         NSFileProviderItemFields changedFields,
                                         std::optional<NSURL> contents,
                                         NSFileProviderModifyItemOptions options,
                                         const NSFileProviderRequest& request,
                                         WriteCompletion completionHandler) override {
    return inner_.modifyItem(std::move(item), baseVersion, changedFields, std::move(contents),
                             options, request, std::move(completionHandler));
  }
  std::shared_ptr<NSProgress> deleteItem(const NSFileProviderItemIdentifier& identifier,
                                         const NSFileProviderItemVersion& baseVersion,
                                         NSFileProviderDeleteItemOptions options,
                                         const NSFileProviderRequest& request,
                                         DeleteCompletion completionHandler) override {
    return inner_.deleteItem(identifier, baseVersion, options, request,
                             std::move(completionHandler));
  }

 private:
  InMemoryExtension& inner_;
  /// As often as a fetch is tried.
  static constexpr int kAttempts = 3;
  int lost_ = 0;
};

TEST_F(StuckTest, ACallThatTheProviderLetsGoOfUnansweredIsAnErrorAndNotTheEndOfTheFile) {
  world.server().writeFile("/a", "12345");
  world.advance(seconds(31));
  world.list("/");
  world.replica().setProvider(std::make_shared<LosingProvider>(world.extension()));
  EXPECT_EQ(errorOf([&] { world.read("/a"); }),
            std::string(NSURLErrorDomain) + " " + std::to_string(NSURLErrorNetworkConnectionLost));
  EXPECT_EQ(world.read("/a"), "12345");
}

}  // namespace
}  // namespace kestrowan::test
