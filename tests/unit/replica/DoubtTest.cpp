#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <utility>

#include "platform/foundation/NSError.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;

/// A request without an answer, while another client does something that looks like its effect.
class DoubtTest : public testing::Test {
 protected:
  DoubtTest() { world.list("/"); }

  /// The first upload comes to nothing; another client is quicker, and the answer is lost.
  void loseFirstUpload(const std::string& path, const std::string& theirs) {
    world.extension().setFaults(
        [this, path, theirs, isFirst = std::make_shared<bool>(true)](const Call& call) {
          Fault fault;
          if (!call.size || !std::exchange(*isFirst, false)) return fault;
          world.server().writeFile(path, theirs);
          fault.effect = Fault::Effect::none;
          fault.error = NSError(NSURLErrorDomain, NSURLErrorNetworkConnectionLost);
          return fault;
        });
  }

  std::set<std::string> contentsThere() const {
    std::set<std::string> contents;
    for (const auto& [path, bytes] : world.server().tree()) {
      if (bytes) contents.insert(*bytes);
    }
    return contents;
  }

  ReplicaWorld world;
};

TEST_F(DoubtTest, OtherBytesOfTheSameSizeAreNotTakenForWhatWasSent) {
  loseFirstUpload("/new", "54321");
  world.write("/new", "12345");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/new"), "54321");
  EXPECT_EQ(contentsThere(), (std::set<std::string>{"12345", "54321"}));
  EXPECT_EQ(world.tree(), world.server().tree());
}

TEST_F(DoubtTest, OtherBytesOfTheSameSizeAreNotTakenForNewContents) {
  world.server().writeFile("/a", "old");
  world.advance(seconds(31));
  EXPECT_EQ(world.read("/a"), "old");
  loseFirstUpload("/a", "54321");
  world.write("/a", "12345");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "54321");
  EXPECT_EQ(contentsThere(), (std::set<std::string>{"12345", "54321"}));
  EXPECT_EQ(world.tree(), world.server().tree());
}

TEST_F(DoubtTest, TheSameBytesAreTakenForWhatWasSent) {
  loseFirstUpload("/new", "12345");
  world.write("/new", "12345");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().tree().size(), 1u);
  EXPECT_EQ(world.extension().count(CallKind::createItem), 1u);
}

TEST_F(DoubtTest, TwoProgramsThatReplaceOneFileAreNoConflict) {
  world.write("/a", "first");
  EXPECT_TRUE(world.settle());
  const auto one = world.open("/a", {.read = true, .write = true});
  world.write("/b", "second");
  world.rename("/b", "/a");
  ReplicaWorld::writeTo(*one, "into the old one");
  world.advance(seconds(2));
  world.append("/a", ", and more");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().tree().size(), 1u);
  EXPECT_EQ(world.server().read("/a"), "second, and more");
  EXPECT_THAT(world.replica().commands().status().conflicts, testing::IsEmpty());
}

// ---- when a server counts as out of reach
// --------------------------------------------------------

TEST_F(DoubtTest, ThreeFailedConnectionsInARowAreAServerOutOfReach) {
  world.extension().setDown(true);
  world.extension().clearCalls();
  world.call(world.replica().askForRoot());
  while (world.extension().calls().size() < 3) {
    EXPECT_FALSE(world.replica().commands().status().offline) << world.extension().calls().size();
    world.advance(std::chrono::milliseconds(10));
  }
  world.advance(std::chrono::milliseconds(10));
  EXPECT_TRUE(world.replica().commands().status().offline);
}

TEST_F(DoubtTest, AnAnswerInBetweenBeginsTheCountAnew) {
  for (int failed = 0; failed < 6; ++failed) {
    world.extension().setDown(failed % 2 == 0);
    world.call(world.replica().askForRoot());
    world.advance(std::chrono::milliseconds(10));
    EXPECT_FALSE(world.replica().commands().status().offline) << failed;
  }
}

// ---- requests of a removal
// -----------------------------------------------------------------------

TEST_F(DoubtTest, AFolderIsRemovedWithOneListingMoreWhenItsOwnIsOld) {
  world.server().makeFolder("/d");
  world.server().writeFile("/d/a", "1");
  world.advance(seconds(31));
  world.list("/d");
  world.remove("/d/a");
  EXPECT_TRUE(world.settle());
  world.advance(minutes(5));
  world.extension().clearCalls();
  world.removeFolder("/d");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.extension().count(CallKind::deleteItem), 1u);
  EXPECT_LE(world.extension().count(CallKind::enumerateItems), 3u);
  EXPECT_TRUE(world.server().tree().empty());
}

}  // namespace
}  // namespace kestrowan::test
