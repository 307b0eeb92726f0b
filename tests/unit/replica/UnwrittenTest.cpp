#include <sys/resource.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "platform/foundation/NSError.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

/// While it lives, nothing that this process writes reaches any file, as on a full disk.
class NothingCanBeWritten {
 public:
  NothingCanBeWritten() : before_(std::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &limit_);
    rlimit none = limit_;
    none.rlim_cur = 0;
    ::setrlimit(RLIMIT_FSIZE, &none);
  }
  NothingCanBeWritten(const NothingCanBeWritten&) = delete;
  NothingCanBeWritten& operator=(const NothingCanBeWritten&) = delete;
  ~NothingCanBeWritten() {
    ::setrlimit(RLIMIT_FSIZE, &limit_);
    std::signal(SIGXFSZ, before_);
  }

 private:
  void (*before_)(int);
  rlimit limit_{};
};

/// Rows that cannot be written.
class UnwrittenTest : public testing::Test {
 protected:
  UnwrittenTest() { world.list("/"); }

  mutable ReplicaWorld world;
};

TEST_F(UnwrittenTest, CallsThatCannotBeNotedFailAndChangeNothing) {
  world.write("/a", "contents");
  EXPECT_TRUE(world.settle());
  {
    const NothingCanBeWritten full;
    EXPECT_NE(errorOf([&] { world.remove("/a"); }), "");
    EXPECT_NE(errorOf([&] { world.makeFolder("/d"); }), "");
    EXPECT_NE(errorOf([&] { world.create("/b"); }), "");
    EXPECT_NE(errorOf([&] { world.open("/a", {.write = true, .truncate = true}); }), "");
    EXPECT_NE(errorOf([&] { world.rename("/a", "/c"); }), "");
  }
  EXPECT_EQ(world.read("/a"), "contents");
  EXPECT_TRUE(world.settle());
  world.crash();
  EXPECT_TRUE(world.settle());
  EXPECT_THAT(world.list("/"), ElementsAre("a"));
  EXPECT_EQ(world.server().read("/a"), "contents");
}

TEST_F(UnwrittenTest, ContentsThatCannotBeReplacedAreNotInTheHistory) {
  world.write("/a", "contents");
  EXPECT_TRUE(world.settle());
  {
    const NothingCanBeWritten full;
    EXPECT_NE(errorOf([&] { world.open("/a", {.write = true, .truncate = true}); }), "");
    EXPECT_NE(errorOf([&] { world.append("/a", "more"); }), "");
    world.advance(seconds(20));
  }
  world.advance(seconds(20));
  EXPECT_EQ(world.read("/a"), "contents");
  EXPECT_EQ(world.replica().commands().status().history.files, 0);
  world.write("/a", "new");
  EXPECT_THAT(world.history(), ElementsAre("contents"));
  world.crash();
  EXPECT_THAT(world.history(), ElementsAre("contents"));
  EXPECT_EQ(world.read("/a"), "new");
}

TEST_F(UnwrittenTest, RenameWithoutRoomForItsRowIsWrittenAndSentLater) {
  world.write("/a", "contents");
  EXPECT_TRUE(world.settle());
  {
    const NothingCanBeWritten full;
    // The first finds out; what follows is not even begun.
    EXPECT_NE(errorOf([&] { world.rename("/a", "/b"); }), "");
    EXPECT_NE(errorOf([&] { world.rename("/b", "/c"); }), "");
    world.advance(seconds(10));
  }
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.list("/").size(), 1u);
  EXPECT_EQ(world.tree(), world.server().tree());
}

TEST_F(UnwrittenTest, NothingIsSentThatCouldNotBeAskedForAfterwards) {
  world.write("/a", "contents");
  {
    const NothingCanBeWritten full;
    world.advance(seconds(10));
    EXPECT_EQ(world.server().read("/a"), std::nullopt);
  }
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "contents");
}

TEST_F(UnwrittenTest, AnswersThatCouldNotBeNotedAreNotedLater) {
  world.write("/a", "contents");
  world.extension().setLatency(seconds(2));
  world.makeFolder("/d");
  {
    const NothingCanBeWritten full;
    world.advance(seconds(20));
    EXPECT_EQ(world.replica().commands().status().pending.size() > 2, false);
  }
  world.extension().setLatency(milliseconds(0));
  world.advance(seconds(30));
  EXPECT_TRUE(world.settle());
  world.extension().clearCalls();
  world.crash();
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.extension().count(CallKind::createItem), 0u) << "what had arrived is sent again";
  EXPECT_EQ(world.tree(), world.server().tree());
}

TEST_F(UnwrittenTest, ListingsThatCannotBeNotedAreShownLater) {
  world.advance(seconds(31));
  world.server().writeFile("/a", "1");
  {
    const NothingCanBeWritten full;
    EXPECT_THAT(world.list("/"), IsEmpty());
  }
  world.advance(seconds(40));
  EXPECT_THAT(world.list("/"), ElementsAre("a"));
  const auto number = world.find("/a");
  world.crash();
  EXPECT_EQ(world.find("/a"), number);
}

TEST_F(UnwrittenTest, DeathWhileNothingCanBeWrittenTakesNothingBack) {
  world.write("/a", "one");
  EXPECT_TRUE(world.settle());
  world.extension().setLatency(seconds(2));
  world.write("/a", "two");
  world.advance(milliseconds(3500));
  {
    const NothingCanBeWritten full;
    world.advance(seconds(10));
  }
  world.crash();
  world.extension().setLatency(milliseconds(0));
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "two");
  EXPECT_THAT(world.list("/"), ElementsAre("a"));
}

}  // namespace
}  // namespace kestrowan::test
