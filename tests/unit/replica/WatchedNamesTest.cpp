#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "replica/Observer.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using replica::ItemKind;
using replica::NameChange;
using replica::Rid;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class Recorder : public replica::Observer {
 public:
  void entryChanged(Rid, const std::string&) override {}
  void itemChanged(Rid, bool) override {}
  void watchedNamesChanged(const std::vector<NameChange>& changes) override {
    ++edits;
    all.insert(all.end(), changes.begin(), changes.end());
  }

  /// Each as "+name", "-name", "*name" for another item or other contents, "~name".
  std::vector<std::string> names() const {
    std::vector<std::string> texts;
    for (const auto& change : all) {
      const bool isSame = change.before == change.now && !change.hasOtherContents;
      const char sign = !change.before ? '+' : !change.now ? '-' : isSame ? '~' : '*';
      texts.push_back(sign + change.name);
    }
    return texts;
  }

  std::vector<NameChange> all;
  std::size_t edits = 0;
};

replica::Options options() {
  replica::Options result;
  result.lastingPart = [](const NSData& version) {
    return version.starts_with("W/") ? version.substr(2) : version;
  };
  return result;
}

class WatchedNamesTest : public testing::Test {
 protected:
  WatchedNamesTest() {
    world.server().makeFolder("/docs");
    world.server().writeFile("/docs/a", "one");
    world.server().writeFile("/docs/b", "two");
    world.server().makeFolder("/docs/c");
    world.server().makeFolder("/other");
    world.list("/docs");
    world.list("/other");
    docs = world.find("/docs");
    world.replica().files().setWatched({docs}, seconds(30));
    world.replica().setObserver(&recorder);
  }
  ~WatchedNamesTest() override { world.replica().setObserver(nullptr); }

  /// Long enough for what must be seen twice.
  void look() { world.advance(seconds(100)); }

  /// Versions are weak now.
  bool isYoung = false;
  ReplicaWorld world{{.isWeak = [this](std::string_view) { return isYoung; }}, options()};
  Recorder recorder;
  Rid docs = 0;
};

TEST_F(WatchedNamesTest, WhatAListingBringsIsToldByNames) {
  world.server().writeFile("/docs/new", "three");
  world.server().makeFolder("/docs/made");
  world.server().writeFile("/docs/a", "another one");
  world.server().remove("/docs/b");
  world.server().remove("/docs/c");
  look();
  EXPECT_THAT(recorder.names(), UnorderedElementsAre("+new", "+made", "*a", "-b", "-c"));
  for (const auto& change : recorder.all) {
    EXPECT_EQ(change.folder, docs);
    if (change.name == "made") {
      EXPECT_EQ(change.now, (NameChange::Shown{world.find("/docs/made"), ItemKind::folder}));
    }
    if (change.name == "new") {
      EXPECT_EQ(change.now, (NameChange::Shown{world.find("/docs/new"), ItemKind::file}));
    }
  }
}

TEST_F(WatchedNamesTest, FoldersThatAreNotWatchedTellNothing) {
  world.server().writeFile("/other/new", "three");
  world.list("/other");
  world.advance(seconds(40));
  world.list("/other");
  EXPECT_TRUE(world.exists("/other/new"));
  world.replica().files().setWatched({}, seconds(30));
  world.server().writeFile("/docs/new", "three");
  world.advance(seconds(40));
  EXPECT_TRUE(world.exists("/docs/new"));
  EXPECT_THAT(recorder.all, IsEmpty());
}

TEST_F(WatchedNamesTest, AnotherWordForTheSameContentsIsNoChange) {
  isYoung = true;
  world.server().writeFile("/docs/new", "three");
  world.server().writeFile("/docs/a", "another one");
  look();
  EXPECT_THAT(recorder.names(), UnorderedElementsAre("+new", "*a"));
  const auto changed = world.attributes("/docs/new").changed;
  isYoung = false;
  look();
  EXPECT_EQ(recorder.all.size(), 2u);
  EXPECT_EQ(world.attributes("/docs/new").changed, changed);
}

TEST_F(WatchedNamesTest, AVersionThatIsFetchedWithAnotherWordIsNoChange) {
  isYoung = true;
  world.server().writeFile("/docs/new", "three");
  look();
  isYoung = false;
  EXPECT_EQ(world.read("/docs/new"), "three");
  world.server().writeFile("/docs/new", "other");
  look();
  EXPECT_THAT(recorder.names(), ElementsAre("+new", "~new", "*new"));
}

TEST_F(WatchedNamesTest, WhetherTheBytesAreHereAndKeptIsAnAttribute) {
  auto& commands = world.replica().commands();
  const Rid a = world.find("/docs/a");
  EXPECT_EQ(world.read("/docs/a"), "one");
  EXPECT_THAT(recorder.names(), ElementsAre("~a"));
  EXPECT_EQ(world.read("/docs/a"), "one");
  EXPECT_EQ(recorder.all.size(), 1u);
  EXPECT_EQ(commands.evict(a).evicted, 1);
  EXPECT_EQ(commands.evict(a).evicted, 0);
  EXPECT_EQ(recorder.all.size(), 2u);
  commands.setPinned(a, true);
  commands.setPinned(a, true);
  EXPECT_TRUE(world.settle());
  look();
  EXPECT_THAT(recorder.names(), ElementsAre("~a", "~a", "~a", "~a"));
}

TEST_F(WatchedNamesTest, ThatAChangeWasSentIsAnAttribute) {
  world.write("/docs/own", "mine");
  EXPECT_THAT(recorder.all, IsEmpty());
  EXPECT_TRUE(world.settle());
  EXPECT_THAT(recorder.names(), ElementsAre("~own"));
}

TEST_F(WatchedNamesTest, WhatIsRestoredIsToldAsNew) {
  world.write("/docs/own", "one");
  EXPECT_TRUE(world.settle());
  world.write("/docs/own", "two");
  EXPECT_TRUE(world.settle());
  recorder.all.clear();
  auto& commands = world.replica().commands();
  const auto first = commands.history({}, 1).entries.at(0).content;
  auto restoring = commands.restore(first, docs, "restored", replica::NameTaken::fails);
  EXPECT_EQ(world.await(std::move(restoring)), "/docs/restored");
  EXPECT_THAT(recorder.names(), ElementsAre("+restored"));
}

TEST_F(WatchedNamesTest, WhatProgramsDoIsTheirsToTell) {
  world.write("/docs/own", "mine");
  world.makeFolder("/docs/folder");
  world.rename("/docs/own", "/docs/moved");
  world.remove("/docs/b");
  world.removeFolder("/docs/c");
  EXPECT_TRUE(world.settle());
  look();
  const auto names = recorder.names();
  EXPECT_TRUE(std::all_of(names.begin(), names.end(), [](const std::string& name) {
    return name.starts_with('~');
  })) << testing::PrintToString(names);
}

TEST_F(WatchedNamesTest, AConflictTellsBothNames) {
  world.write("/docs/a", "mine");
  world.server().writeFile("/docs/a", "another's");
  EXPECT_TRUE(world.settle());
  const auto names = recorder.names();
  EXPECT_EQ(std::count_if(names.begin(), names.end(),
                          [](const std::string& name) { return name.starts_with("+a (conflict"); }),
            1)
      << testing::PrintToString(names);
  EXPECT_THAT(names, testing::Contains("*a"));
}

TEST_F(WatchedNamesTest, WhatMakesRoomTellsBothNames) {
  world.write("/docs/n", "mine");
  const Rid ours = world.find("/docs/n");
  world.server().makeFolder("/docs/n");
  EXPECT_TRUE(world.settle());
  EXPECT_THAT(recorder.names(), ElementsAre("*n", "+n (2)", "~n (2)"));
  EXPECT_EQ(recorder.all.at(0).before, (NameChange::Shown{ours, ItemKind::file}));
  EXPECT_EQ(recorder.all.at(0).now, (NameChange::Shown{world.find("/docs/n"), ItemKind::folder}));
  EXPECT_EQ(recorder.all.at(1).now, (NameChange::Shown{ours, ItemKind::file}));
}

TEST_F(WatchedNamesTest, TheFirstListingOfAFolderIsNoChange) {
  world.server().makeFolder("/docs/late");
  world.server().writeFile("/docs/late/x", "x");
  look();
  recorder.all.clear();
  const Rid late = world.find("/docs/late");
  world.replica().files().setWatched({late}, seconds(30));
  EXPECT_THAT(world.list("/docs/late"), ElementsAre("x"));
  EXPECT_THAT(recorder.all, IsEmpty());
  world.replica().files().setWatched({late}, seconds(30));
  world.server().writeFile("/docs/late/y", "y");
  look();
  EXPECT_THAT(recorder.names(), ElementsAre("+y"));
}

TEST_F(WatchedNamesTest, AListingIsToldAtOnce) {
  for (int number = 0; number < 500; ++number) {
    world.server().writeFile("/docs/" + std::to_string(number), "x");
  }
  look();
  EXPECT_EQ(recorder.all.size(), 500u);
  EXPECT_EQ(recorder.edits, 1u);
}

TEST_F(WatchedNamesTest, WhatIsKnownIsAskedForWithoutAListing) {
  auto& files = world.replica().files();
  world.advance(seconds(400));
  world.extension().clearCalls();
  EXPECT_EQ(files.known(docs, "a")->rid, world.find("/docs/a"));
  world.extension().clearCalls();
  EXPECT_EQ(files.known(docs, "none"), std::nullopt);
  EXPECT_EQ(files.known(12345, "a"), std::nullopt);
  EXPECT_THAT(world.extension().calls(), IsEmpty());
}

TEST_F(WatchedNamesTest, TheWayToAFolderLeadsFromTheRoot) {
  auto& files = world.replica().files();
  const Rid c = world.find("/docs/c");
  const auto way = files.way(c);
  ASSERT_TRUE(way);
  EXPECT_THAT(*way, ElementsAre(replica::FolderStep{replica::kRootRid, "docs", docs},
                                replica::FolderStep{docs, "c", c}));
  EXPECT_THAT(*files.way(replica::kRootRid), IsEmpty());
  EXPECT_EQ(files.way(world.find("/docs/a")), std::nullopt);
  EXPECT_EQ(files.way(12345), std::nullopt);
}

}  // namespace
}  // namespace kestrowan::test
