#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using replica::AttributeChange;
using replica::Attributes;
using std::chrono::seconds;

constexpr std::int64_t kSecond = 1'000'000'000;
/// In 2001, with a fraction of a second.
constexpr std::int64_t kThen = 1'000'000'000 * kSecond + 123'456'789;

/// When a folder was modified, and its mode, as programs see them.
class FolderDateTest : public testing::Test {
 protected:
  FolderDateTest() {
    world.server().makeFolder("/d");
    world.list("/");
    world.list("/d");
  }

  void change(const std::string& path, const AttributeChange& change) {
    auto changing = world.replica().files().setAttributes(world.find(path), change);
    ASSERT_TRUE(world.call(std::move(changing)).hasSucceeded());
  }
  void setDate(const std::string& path, std::int64_t date) {
    AttributeChange wanted;
    wanted.modified = date;
    change(path, wanted);
  }
  /// After a listing of the folder that it is in, which begins now.
  std::int64_t date(const std::string& path = "/d") {
    world.advance(seconds(60));
    world.list("/");
    return world.attributes(path).modified;
  }
  std::int64_t now() { return world.loop().wallClock() * 1'000'000; }

  ReplicaWorld world;
};

TEST_F(FolderDateTest, IsTheProviders) {
  EXPECT_EQ(date(), world.server().stat("/d")->date * kSecond);
}

TEST_F(FolderDateTest, ThatAProgramSetStays) {
  setDate("/d", kThen);
  EXPECT_EQ(world.attributes("/d").modified, kThen);
  EXPECT_EQ(date(), kThen);
  world.crash();
  EXPECT_EQ(date(), kThen);
}

TEST_F(FolderDateTest, OfANewFolderStays) {
  world.makeFolder("/new");
  setDate("/new", kThen);
  EXPECT_EQ(date("/new"), kThen);
}

TEST_F(FolderDateTest, ThatAProgramSetMayBeTheFirstSecond) {
  setDate("/d", 0);
  EXPECT_EQ(date(), 0);
  world.makeFolder("/new");
  world.write("/new/a", "1");
  setDate("/new", 0);
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(date("/new"), 0);
}

TEST_F(FolderDateTest, StaysWhileWhatWasMadeInTheFolderBeforeArrives) {
  world.makeFolder("/copy");
  world.makeFolder("/copy/in");
  world.write("/copy/a", "1");
  world.write("/copy/in/b", "2");
  setDate("/copy/in", kThen + 1);
  setDate("/copy", kThen);
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(date("/copy"), kThen);
  world.list("/copy");
  EXPECT_EQ(date("/copy/in"), kThen + 1);
  world.crash();
  EXPECT_EQ(date("/copy"), kThen);
  EXPECT_EQ(date("/copy/in"), kThen + 1);
}

TEST_F(FolderDateTest, StaysWhenTheProcessEndsBeforeTheNextListing) {
  world.write("/d/a", "1");
  setDate("/d", kThen);
  EXPECT_TRUE(world.settle());
  world.crash();
  EXPECT_EQ(date(), kThen);
}

TEST_F(FolderDateTest, StaysWhenItIsListedDuringARequest) {
  world.write("/d/a", "1");
  setDate("/d", kThen);
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    fault.hangs = call.kind == CallKind::createItem;
    return fault;
  });
  EXPECT_EQ(date(), kThen);
  EXPECT_EQ(world.server().read("/d/a"), "1");
  EXPECT_EQ(date(), kThen);
  world.extension().setFaults({});
  world.extension().releaseHung();
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(date(), kThen);
}

TEST_F(FolderDateTest, StaysWhenContentsOfAFileInItAreSent) {
  world.write("/d/a", "1");
  EXPECT_TRUE(world.settle());
  date();
  setDate("/d", kThen);
  date();
  world.write("/d/a", "changed");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(date(), kThen);
}

TEST_F(FolderDateTest, IsThatOfWhatAnotherClientDoes) {
  world.server().makeFolder("/n");
  date("/n");
  setDate("/n", kThen);
  EXPECT_EQ(date("/n"), kThen);
  world.server().writeFile("/n/theirs", "x");
  const std::int64_t theirs = world.server().stat("/n")->date * kSecond;
  EXPECT_EQ(date("/n"), theirs);
  EXPECT_EQ(date("/n"), theirs);
}

TEST_F(FolderDateTest, OfAFolderInUseIsThatOfTheListingThatShowsWhatAnotherClientDid) {
  setDate("/d", kThen);
  EXPECT_EQ(date(), kThen);
  world.server().writeFile("/d/theirs", "x");
  const std::int64_t theirs = world.server().stat("/d")->date * kSecond;
  world.list("/d");
  const std::int64_t shown = date();
  EXPECT_GE(shown, theirs);
  EXPECT_EQ(date(), shown);
}

TEST_F(FolderDateTest, IsNewWhenSomethingIsMadeRemovedOrRenamedInIt) {
  world.makeFolder("/e");
  world.server().writeFile("/d/old", "x");
  date();
  world.list("/d");
  const auto expectNew = [&](const char* path, const auto& action) {
    setDate("/d", kThen);
    setDate("/e", kThen);
    world.advance(seconds(1));
    const std::int64_t before = now();
    action();
    EXPECT_GE(world.attributes(path).modified, before);
    EXPECT_TRUE(world.settle());
    EXPECT_GE(date(path), before);
  };
  expectNew("/d", [&] { world.write("/d/a", "1"); });
  expectNew("/d", [&] { world.makeFolder("/d/f"); });
  expectNew("/d", [&] { world.remove("/d/old"); });
  expectNew("/d", [&] { world.removeFolder("/d/f"); });
  expectNew("/d", [&] { world.rename("/d/a", "/d/b"); });
  expectNew("/d", [&] { world.rename("/d/b", "/e/b"); });
  expectNew("/d", [&] { world.rename("/e/b", "/d/b"); });
  expectNew("/e", [&] { world.rename("/d/b", "/e/b"); });
}

TEST_F(FolderDateTest, MovesWithEachChangeThoughTheClockStandsStill) {
  std::int64_t before = world.attributes("/d").modified;
  const auto expectLater = [&](const auto& action) {
    action();
    const std::int64_t after = world.attributes("/d").modified;
    EXPECT_GT(after, before);
    before = after;
  };
  expectLater([&] { world.write("/d/a", "1"); });
  expectLater([&] { world.write("/d/b", "1"); });
  expectLater([&] { world.rename("/d/a", "/d/b"); });
  expectLater([&] { world.remove("/d/b"); });
  world.crashUnconnected();
  EXPECT_EQ(world.attributes("/d").modified, before);
}

TEST_F(FolderDateTest, MovesWithWhatAListingShowsInTheFolder) {
  std::int64_t before = date();
  const auto expectLater = [&](const auto& action) {
    action();
    world.advance(seconds(60));
    world.list("/d");
    world.advance(seconds(60));
    world.list("/d");
    const std::int64_t after = world.attributes("/d").modified;
    EXPECT_GT(after, before);
    before = after;
  };
  expectLater([&] { world.server().writeFile("/d/theirs", "x"); });
  expectLater([&] { world.server().rename("/d/theirs", "/d/other"); });
  expectLater([&] { world.server().remove("/d/other"); });
  expectLater([&] { world.server().makeFolder("/d/folder"); });
}

TEST_F(FolderDateTest, StaysWhenItIsListedFirst) {
  world.server().makeFolder("/n");
  world.server().writeFile("/n/a", "x");
  const std::int64_t before = date("/n");
  world.list("/n");
  EXPECT_EQ(world.attributes("/n").modified, before);
}

TEST_F(FolderDateTest, NeverGoesBackByItself) {
  const std::int64_t later = now() + 1'000'000 * kSecond;
  setDate("/d", later);
  EXPECT_EQ(date(), later);
  world.server().writeFile("/d/theirs", "x");
  world.list("/d");
  EXPECT_EQ(date(), later + 1);
  world.write("/d/ours", "x");
  EXPECT_GT(date(), later + 1);
}

TEST_F(FolderDateTest, OfAFolderInWhichSomethingWasMadeIsNewAfterARestart) {
  setDate("/d", kThen);
  world.extension().setDown(true);
  const std::int64_t before = now();
  world.write("/d/a", "1");
  world.crashUnconnected();
  EXPECT_GE(world.attributes("/d").modified, before);
}

TEST_F(FolderDateTest, StaysWhenContentsAreOnlyWritten) {
  world.write("/d/a", "1");
  setDate("/d", kThen);
  world.append("/d/a", "2");
  EXPECT_EQ(world.attributes("/d").modified, kThen);
}

TEST_F(FolderDateTest, ModeStaysAsItWasSet) {
  AttributeChange wanted;
  wanted.mode = 0700;
  change("/d", wanted);
  world.server().writeFile("/d/theirs", "x");
  date();
  EXPECT_EQ(world.attributes("/d").mode, 0700);
  world.write("/d/ours", "x");
  EXPECT_TRUE(world.settle());
  world.crash();
  date();
  EXPECT_EQ(world.attributes("/d").mode, 0700);
}

TEST_F(FolderDateTest, OfAFileThatAProgramSetStaysWithoutItsContents) {
  world.server().writeFile("/a", "x");
  date("/a");
  setDate("/a", kThen);
  EXPECT_EQ(date("/a"), kThen);
  world.crash();
  EXPECT_EQ(date("/a"), kThen);
  EXPECT_EQ(world.read("/a"), "x");
  EXPECT_EQ(date("/a"), kThen);
}

}  // namespace
}  // namespace kestrowan::test
