#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/NSError.h"
#include "replica/remote/AnswerTable.h"
#include "support/RecordingLog.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using replica::SyncState;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

bool isChange(CallKind kind) {
  return kind == CallKind::createItem || kind == CallKind::modifyItem ||
         kind == CallKind::deleteItem;
}

std::string answered(std::int64_t httpStatus) {
  return std::string(replica::remote::kAnswerDomain) + " " + std::to_string(httpStatus);
}

/// The server says no to changes, for good.
class DenialTest : public testing::Test {
 protected:
  explicit DenialTest(InMemoryOptions options = {}) : world(std::move(options)) {
    world.server().makeFolder("/docs");
    world.server().writeFile("/docs/a", "old");
    world.advance(seconds(31));
    world.list("/docs");
    world.extension().clearCalls();
  }

  /// From now on each change is answered so.
  void deny(std::int64_t httpStatus, Fault::Effect effect = Fault::Effect::none) {
    world.extension().setFaults([=](const Call& call) {
      Fault fault;
      if (isChange(call.kind)) fault = {.effect = effect, .httpStatus = httpStatus};
      return fault;
    });
  }

  std::size_t changes() {
    return world.extension().count(CallKind::createItem) +
           world.extension().count(CallKind::modifyItem) +
           world.extension().count(CallKind::deleteItem);
  }

  replica::ItemStatus status(std::string_view path) {
    return world.replica().commands().itemStatus(world.find(path));
  }

  ReplicaWorld world;
};

TEST_F(DenialTest, FolderThatTheServerForbidsIsRefusedAndNotTriedAgain) {
  deny(403);
  EXPECT_EQ(errorOf([&] { world.makeFolder("/docs/new"); }), answered(403));
  EXPECT_FALSE(world.exists("/docs/new"));
  world.advance(minutes(60));
  EXPECT_EQ(changes(), 1u);
  EXPECT_EQ(world.replica().commands().status().pendingCount, 0);
}

TEST_F(DenialTest, RefusedRenameAndRemovalAreUndone) {
  for (const std::int64_t status : {400, 403, 405, 409, 414, 422, 423, 451, 507}) {
    deny(status);
    EXPECT_EQ(errorOf([&] { world.rename("/docs/a", "/docs/b"); }), answered(status));
    EXPECT_EQ(errorOf([&] { world.remove("/docs/a"); }), answered(status));
    EXPECT_THAT(world.list("/docs"), ElementsAre("a"));
    world.advance(minutes(60));
    EXPECT_EQ(changes(), 2u) << status;
    EXPECT_EQ(world.read("/docs/a"), "old");
    world.extension().clearCalls();
  }
}

TEST_F(DenialTest, RefusedRemovalOfAFolderBringsItBack) {
  world.server().makeFolder("/docs/empty");
  world.advance(seconds(31));
  world.list("/docs");
  world.list("/docs/empty");
  deny(403);
  EXPECT_EQ(errorOf([&] { world.removeFolder("/docs/empty"); }), answered(403));
  EXPECT_THAT(world.list("/docs"), ElementsAre("a", "empty"));
}

TEST_F(DenialTest, TheLogSaysWhatTheServerAnswered) {
  const RecordingLog log;
  deny(403);
  EXPECT_NE(errorOf([&] { world.makeFolder("/docs/new"); }), "");
  EXPECT_THAT(log.lines(),
              Contains(testing::HasSubstr("the server said no: /docs/new the server forbids it")));
}

TEST_F(DenialTest, OtherAnswersLeaveTheChangeHereAsBefore) {
  for (const std::int64_t status : {404, 429, 500, 503}) {
    deny(status);
    const auto name = "/docs/" + std::to_string(status);
    world.makeFolder(name);
    EXPECT_EQ(status, this->status(name).failure->code);
    EXPECT_EQ(this->status(name).state, SyncState::retrying);
    world.extension().setFaults({});
    EXPECT_TRUE(world.settle());
    EXPECT_TRUE(world.server().stat(name));
  }
}

TEST_F(DenialTest, RefusedContentsStayHereAndWaitForTheUser) {
  deny(403);
  world.write("/docs/a", "new");
  world.advance(minutes(60));
  EXPECT_EQ(changes(), 1u);
  EXPECT_EQ(world.read("/docs/a"), "new");
  EXPECT_EQ(status("/docs/a").state, SyncState::refused);
  EXPECT_EQ(status("/docs/a").failure->text, "the server forbids it (403 to CHANGE)");
  EXPECT_EQ(world.server().read("/docs/a"), "old");
  world.extension().setFaults({});
  world.replica().commands().retry(world.find("/docs/a"));
  world.advance(seconds(3));
  EXPECT_EQ(world.server().read("/docs/a"), "new");
}

TEST_F(DenialTest, NewFileThatIsRefusedStaysHere) {
  deny(400);
  world.write("/docs/new", "contents");
  world.advance(minutes(60));
  EXPECT_EQ(changes(), 1u);
  EXPECT_EQ(world.read("/docs/new"), "contents");
  EXPECT_EQ(status("/docs/new").state, SyncState::refused);
}

TEST_F(DenialTest, ContentsForWhichThereIsNoRoomAreSentAgainEveryQuarterOfAnHour) {
  deny(507);
  world.write("/docs/a", "new");
  world.advance(minutes(14));
  EXPECT_EQ(changes(), 1u);
  world.advance(minutes(6));
  EXPECT_EQ(changes(), 2u);
  world.extension().setFaults({});
  world.advance(minutes(15));
  EXPECT_EQ(world.server().read("/docs/a"), "new");
}

TEST_F(DenialTest, ContentsOfALockedFileAreSentOnceTheLockHasEnded) {
  deny(423);
  world.write("/docs/a", "new");
  world.advance(minutes(1));
  EXPECT_EQ(status("/docs/a").state, SyncState::retrying);
  EXPECT_EQ(status("/docs/a").failure->text, "locked at the server (423 to CHANGE)");
  world.extension().setFaults({});
  world.advance(minutes(2));
  EXPECT_EQ(world.server().read("/docs/a"), "new");
}

TEST_F(DenialTest, ARefusalThatComesTooLateForTheCallLeavesTheChangeHere) {
  deny(403);
  world.extension().setLatency(seconds(4));
  world.rename("/docs/a", "/docs/b");
  world.advance(minutes(60));
  EXPECT_THAT(world.list("/docs"), ElementsAre("b"));
  EXPECT_EQ(status("/docs/b").state, SyncState::refused);
  EXPECT_EQ(changes(), 1u);
}

TEST_F(DenialTest, WhatWasDoneAllTheSameIsNotRefused) {
  for (const std::int64_t status : {403, 405, 409, 507}) {
    const auto name = std::to_string(status);
    deny(status, Fault::Effect::all);
    world.makeFolder("/docs/" + name);
    world.write("/docs/" + name + "/file", "contents");
    world.advance(seconds(3));
    world.rename("/docs/" + name, "/" + name);
    world.advance(minutes(20));
    world.extension().setFaults({});
    EXPECT_TRUE(world.settle()) << status;
    EXPECT_EQ(world.tree(), world.server().tree());
    EXPECT_EQ(world.server().read("/" + name + "/file"), "contents");
  }
  EXPECT_EQ(world.replica().commands().status().conflicts.size(), 0u);
}

TEST_F(DenialTest, FolderThatAnotherClientMadeIsTheSameFolder) {
  world.server().makeFolder("/docs/new");
  world.server().writeFile("/docs/new/theirs", "x");
  world.makeFolder("/docs/new");
  EXPECT_THAT(world.extension().calls(), Contains("createItem /docs/new folder"));
  EXPECT_TRUE(world.settle());
  EXPECT_THAT(world.list("/docs/new"), ElementsAre("theirs"));
}

TEST_F(DenialTest, FileWhoseFolderAnotherClientRemovedIsMadeAnewWithIt) {
  const auto file = world.create("/docs/new");
  ReplicaWorld::writeTo(*file, "only here");
  EXPECT_TRUE(world.call(world.replica().files().fsync(file)).hasSucceeded());
  bool isRemoved = false;
  world.extension().setFaults([&](const Call& call) {
    // Just before the request.
    if (isChange(call.kind) && !isRemoved) {
      isRemoved = true;
      world.server().remove("/docs");
    }
    return Fault();
  });
  world.advance(minutes(2));
  EXPECT_TRUE(isRemoved);
  EXPECT_EQ(world.server().read("/docs/new"), "only here");
  EXPECT_EQ(status("/docs/new").state, SyncState::synced);
}

TEST_F(DenialTest, FolderThatWasRefusedIsNotRemovedWhenAnotherClientMakesItLater) {
  deny(403);
  EXPECT_EQ(errorOf([&] { world.makeFolder("/docs/new"); }), answered(403));
  world.extension().setFaults({});
  world.server().makeFolder("/docs/new");
  world.advance(minutes(20));
  EXPECT_TRUE(world.server().stat("/docs/new"));
  EXPECT_TRUE(world.exists("/docs/new"));
  EXPECT_EQ(changes(), 1u);
}

TEST_F(DenialTest, WhileNoListingTellsNothingIsRefused) {
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (isChange(call.kind)) {
      fault = {.effect = Fault::Effect::none, .httpStatus = 403};
    } else if (call.kind == CallKind::enumerateItems) {
      fault = {.effect = Fault::Effect::none, .httpStatus = 503};
    }
    return fault;
  });
  world.makeFolder("/docs/new");
  EXPECT_TRUE(world.exists("/docs/new"));
  world.extension().setFaults({});
  EXPECT_TRUE(world.settle());
  EXPECT_TRUE(world.server().stat("/docs/new"));
}

TEST_F(DenialTest, WhatTheServerSaysToALookRefusesNoChange) {
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::item) fault = {.effect = Fault::Effect::none, .httpStatus = 403};
    return fault;
  });
  world.write("/docs/a", "new");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/docs/a"), "new");
}

/// The provider has no list of requests.
class UnknownAnswerTest : public DenialTest {
 protected:
  UnknownAnswerTest() : DenialTest({.tellsAnswers = false}) {}
};

TEST_F(UnknownAnswerTest, ChangesThatFailAreTriedAgain) {
  deny(403);
  world.makeFolder("/docs/new");
  EXPECT_TRUE(world.exists("/docs/new"));
  world.write("/docs/a", "new");
  world.advance(minutes(1));
  EXPECT_EQ(status("/docs/a").state, SyncState::retrying);
  EXPECT_EQ(status("/docs/a").failure->domain, NSFileProviderErrorDomain);
  world.extension().setFaults({});
  EXPECT_TRUE(world.settle());
  EXPECT_TRUE(world.server().stat("/docs/new"));
  EXPECT_EQ(world.server().read("/docs/a"), "new");
}

}  // namespace
}  // namespace kestrowan::test
