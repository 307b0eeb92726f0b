#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "replica/store/Database.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

std::string readFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const fs::path& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

class LoadingTest : public testing::Test {
 protected:
  fs::path directory() const { return world.directory(); }
  std::vector<fs::path> contents() const { return filesIn(directory() / "contents"); }

  /// The bytes of everything in the history.
  std::vector<std::string> recovered() { return world.history(); }

  /// Ends the replica, does `between` to its directory, and begins a new one without a provider.
  template <typename Between>
  void restart(Between between) {
    world.crashUnconnected([&] { between(); });
  }
  /// As `restart`, when the machine was stopped meanwhile and nothing was said to the replica.
  template <typename Between>
  void stopMachine(Between between) {
    restart([&] {
      writeFile(directory() / "in-use", "another run of the machine");
      between();
    });
  }
  void loseDatabase() const {
    for (const char* name : {"replica.db", "replica.db-wal", "replica.db-shm"}) {
      fs::remove(directory() / name);
    }
  }

  /// Runs statements on the closed database.
  void changeRows(const char* statements) const {
    replica::Database((directory() / "replica.db").string()).execute(statements);
  }

  ReplicaWorld world;

 private:
  static std::vector<fs::path> filesIn(const fs::path& folder) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(folder)) files.push_back(entry.path());
    return files;
  }
};

// ---- a lost database ---------------------------------------------------------------------------

TEST_F(LoadingTest, LostDatabaseLosesNoContents) {
  world.server().writeFile("/there", "from the server");
  world.read("/there");
  world.extension().setDown(true);
  world.write("/new", "only here");
  restart([this] { loseDatabase(); });
  EXPECT_THAT(recovered(), UnorderedElementsAre("from the server", "only here"));
  EXPECT_EQ(world.replica().commands().status().history.files, 2);
}

TEST_F(LoadingTest, ContentsOfALostDatabaseStayHoweverManyAndOldTheyAre) {
  world.list("/");
  world.extension().setDown(true);
  world.write("/new", "only here");
  restart([this] { loseDatabase(); });
  world.connect();
  world.advance(std::chrono::hours(24 * 60));
  EXPECT_THAT(recovered(), ElementsAre("only here"));
}

TEST_F(LoadingTest, NewDatabaseGivesNumbersThatNoContentsBear) {
  world.list("/");
  world.extension().setDown(true);
  for (int i = 0; i < 5; ++i) world.write("/" + std::to_string(i), "first " + std::to_string(i));
  restart([this] { loseDatabase(); });
  world.connect();
  for (int i = 0; i < 5; ++i) world.write("/" + std::to_string(i), "second " + std::to_string(i));
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/3"), "second 3");
  EXPECT_EQ(recovered().size(), 5u);
}

TEST_F(LoadingTest, LostDatabaseLeavesTheServerAsItIs) {
  world.server().writeFile("/a", "1");
  world.server().makeFolder("/d");
  world.tree();
  world.write("/b", "2");
  EXPECT_TRUE(world.settle());
  const auto before = world.server().tree();
  restart([this] { loseDatabase(); });
  world.connect();
  EXPECT_EQ(world.tree(), before);
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().tree(), before);
}

TEST_F(LoadingTest, OlderDatabaseLosesNoContentsAndGivesNoNumberTwice) {
  world.list("/");
  world.extension().setDown(true);
  restart([] {});
  const auto copy = directory().string() + ".copy";
  fs::copy_file(directory() / "replica.db", copy);
  world.connect();
  world.extension().setDown(true);
  world.write("/a", "only here");
  // A backup of the database alone was put back, and the replica was not ended in order.
  restart([&] {
    loseDatabase();
    fs::rename(copy, directory() / "replica.db");
  });
  world.connect();
  for (int i = 0; i < 20; ++i) world.write("/" + std::to_string(i), "x");
  EXPECT_TRUE(world.settle());
  EXPECT_THAT(recovered(), ElementsAre("only here"));
}

// ---- a machine that stopped --------------------------------------------------------------------

TEST_F(LoadingTest, FetchedContentsAreNotTrustedAfterThePowerFailed) {
  world.server().writeFile("/a", "right");
  EXPECT_EQ(world.read("/a"), "right");
  stopMachine([this] {
    ASSERT_EQ(contents().size(), 1u);
    writeFile(contents()[0], "zeros");  // of the same length
  });
  EXPECT_EQ(world.replica().commands().status().cachedFiles, 0);
  world.connect();
  EXPECT_EQ(world.read("/a"), "right");
  EXPECT_THAT(recovered(), IsEmpty());
}

TEST_F(LoadingTest, SentContentsAreNotTrustedAfterThePowerFailed) {
  world.write("/a", "right");
  EXPECT_TRUE(world.settle());
  stopMachine([this] { writeFile(contents()[0], "wrong"); });
  world.connect();
  EXPECT_EQ(world.read("/a"), "right");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "right");
}

TEST_F(LoadingTest, ChangedContentsStayWhenThePowerFailed) {
  world.server().writeFile("/a", "theirs");
  world.read("/a");
  world.extension().setDown(true);
  world.write("/a", "mine");
  world.write("/b", "new");
  stopMachine([] {});
  EXPECT_EQ(world.read("/a"), "mine");
  world.connect();
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "mine");
  EXPECT_EQ(world.server().read("/b"), "new");
}

TEST_F(LoadingTest, LocalOnlyFilesStayWhenThePowerFailed) {
  world.server().writeFile("/a", "x");
  world.read("/a");
  world.rename("/a", "/.a.swp");
  EXPECT_TRUE(world.settle());
  stopMachine([] {});
  EXPECT_EQ(world.read("/.a.swp"), "x");
}

TEST_F(LoadingTest, SizeIsTheServersOnceContentsAreNotTrusted) {
  world.server().writeFile("/a", "right");
  world.read("/a");
  stopMachine([] {});
  EXPECT_EQ(world.replica().files().attributes(world.find("/a")).size, 5);
}

TEST_F(LoadingTest, ContentsAreTrustedAfterAnOrderlyEnd) {
  world.server().writeFile("/a", "x");
  world.read("/a");
  restart([this] {
    EXPECT_EQ(readFile(directory() / "in-use").find_first_not_of(' '), std::string::npos);
  });
  EXPECT_EQ(world.replica().commands().status().cachedFiles, 1);
}

TEST_F(LoadingTest, ContentsAreTrustedWhenOnlyTheProcessDied) {
  world.server().writeFile("/a", "x");
  world.read("/a");
  const std::string mark = readFile(directory() / "in-use");
  EXPECT_FALSE(mark.empty());
  restart([&] { writeFile(directory() / "in-use", mark); });
  EXPECT_EQ(world.replica().commands().status().cachedFiles, 1);
}

TEST_F(LoadingTest, EmptyMarkIsOneThatPowerFailedOn) {
  world.server().writeFile("/a", "x");
  world.read("/a");
  restart([this] { writeFile(directory() / "in-use", ""); });
  EXPECT_EQ(world.replica().commands().status().cachedFiles, 0);
}

TEST_F(LoadingTest, ContentsWithoutARowAreKeptWhenThePowerFailed) {
  world.server().makeFolder("/takes a number");
  world.list("/");
  stopMachine([this] { writeFile(directory() / "contents" / "2", "its row was not synced"); });
  EXPECT_THAT(recovered(), ElementsAre("its row was not synced"));
}

TEST_F(LoadingTest, ContentsWithoutARowMayGoForOthersWhenOnlyTheProcessDied) {
  world.server().makeFolder("/takes a number");
  world.list("/");
  restart([this] { writeFile(directory() / "contents" / "2", "given up"); });
  EXPECT_THAT(recovered(), ElementsAre("given up"));
  EXPECT_EQ(contents().size(), 1u);
  EXPECT_EQ(world.replica().commands().status().history.unconfirmedFiles, 0);
}

// ---- rows and files that disagree --------------------------------------------------------------

TEST_F(LoadingTest, FetchedContentsOfAnotherSizeAreFetchedAgain) {
  world.server().writeFile("/a", "right");
  world.read("/a");
  restart([this] { writeFile(contents()[0], "rig"); });
  world.connect();
  EXPECT_EQ(world.read("/a"), "right");
}

TEST_F(LoadingTest, MissingContentsAreFetchedAgain) {
  world.server().writeFile("/a", "right");
  world.read("/a");
  restart([this] { fs::remove(contents()[0]); });
  world.connect();
  EXPECT_EQ(world.read("/a"), "right");
}

TEST_F(LoadingTest, MissingChangedContentsGiveWayToTheServers) {
  world.server().writeFile("/a", "theirs");
  world.read("/a");
  world.extension().setDown(true);
  world.write("/a", "mine and longer");
  world.write("/b", "only here");
  restart([this] {
    for (const auto& file : contents()) fs::remove(file);
  });
  EXPECT_EQ(world.replica().files().attributes(world.find("/a")).size, 6);
  world.connect();
  EXPECT_EQ(world.read("/a"), "theirs");
  EXPECT_THAT(world.list("/"), ElementsAre("a"));
  EXPECT_TRUE(world.settle());
  EXPECT_THAT(world.server().tree(), testing::SizeIs(1));
}

TEST_F(LoadingTest, ContentsOfRowsThatMakeNoSenseAreKept) {
  world.list("/");
  world.extension().setDown(true);
  world.write("/a", "in a");
  world.write("/b", "in b");
  restart([this] { changeRows("UPDATE tree SET size=-1 WHERE here_name=x'61'"); });
  EXPECT_THAT(recovered(), ElementsAre("in a"));
  EXPECT_EQ(world.read("/b"), "in b");
}

TEST_F(LoadingTest, OfTwoRowsInOnePlaceNeitherLosesItsContents) {
  world.list("/");
  world.extension().setDown(true);
  world.write("/a", "in a");
  world.write("/b", "in b");
  restart([this] { changeRows("UPDATE tree SET here_name=x'61' WHERE here_name=x'62'"); });
  EXPECT_THAT(world.list("/"), ElementsAre("a"));
  std::vector<std::string> kept = recovered();
  kept.push_back(world.read("/a"));
  EXPECT_THAT(kept, UnorderedElementsAre("in a", "in b"));
}

TEST_F(LoadingTest, ContentsOfAnItemWithoutAFolderAreKept) {
  world.list("/");
  world.extension().setDown(true);
  world.makeFolder("/d");
  world.write("/d/a", "in a");
  restart([this] { changeRows("DELETE FROM tree WHERE here_name=x'64'"); });
  EXPECT_THAT(world.list("/"), IsEmpty());
  EXPECT_THAT(recovered(), ElementsAre("in a"));
}

TEST_F(LoadingTest, NumbersOfRowsAreNeverGivenAgain) {
  world.list("/");
  world.extension().setDown(true);
  world.write("/a", "in a");
  restart([this] { changeRows("UPDATE series SET item=2,intent=1,content=2"); });
  world.connect();
  world.write("/b", "in b");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "in a");
  EXPECT_EQ(world.server().read("/b"), "in b");
}

TEST_F(LoadingTest, AbsurdNumberDoesNotKeepTheReplicaFromBeginning) {
  world.list("/");
  world.extension().setDown(true);
  world.write("/a", "in a");
  restart(
      [this] { changeRows("UPDATE tree SET number=9223372036854775807 WHERE here_name=x'61'"); });
  EXPECT_THAT(recovered(), ElementsAre("in a"));
  restart([] {});
  world.connect();
  world.write("/b", "in b");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/b"), "in b");
}

// ---- rows of other places ----------------------------------------------------------------------

TEST_F(LoadingTest, AnItemOfAnotherPlaceIsLeftOutAndItsContentsAreKept) {
  world.server().writeFile("/a", "theirs");
  world.server().makeFolder("/d");
  world.tree();
  for (const char* other : {"2F", "2F64", "2F642F2E2E", "2F2F61", "2F612F", "2F6100", "61"}) {
    const std::string mine = "mine " + std::string(other);
    world.extension().setDown(true);
    world.write("/a", mine);
    restart([&] {
      changeRows(
          ("UPDATE tree SET there_identifier=x'" + std::string(other) + "' WHERE here_name=x'61'")
              .c_str());
    });
    EXPECT_THAT(recovered(), testing::Contains(mine)) << other;
    world.connect();
    EXPECT_TRUE(world.settle());
    EXPECT_EQ(world.read("/a"), "theirs") << other;
    EXPECT_EQ(world.server().tree().size(), 2u) << other;
  }
}

TEST_F(LoadingTest, RemovalOfAnItemOfAnotherPlaceIsForgotten) {
  world.server().writeFile("/a", "theirs");
  world.server().writeFile("/b", "others");
  world.tree();
  world.extension().setDown(true);
  world.remove("/a");
  restart(
      [this] { changeRows("UPDATE tree SET there_identifier=x'2F62' WHERE there_name=x'61'"); });
  world.connect();
  EXPECT_TRUE(world.settle());
  EXPECT_THAT(world.list("/"), ElementsAre("a", "b"));
  EXPECT_EQ(world.server().tree().size(), 2u);
}

TEST_F(LoadingTest, WhatIsInAFolderOfAnotherPlaceIsLeftOutWithIt) {
  world.server().makeFolder("/d");
  world.server().makeFolder("/d/e");
  world.server().writeFile("/d/e/a", "theirs");
  world.server().writeFile("/d/e/b", "read before");
  world.tree();
  world.extension().setDown(true);
  world.write("/d/e/a", "mine");
  world.write("/d/e/c", "made here");
  world.remove("/d/e/b");
  restart([this] { changeRows("UPDATE tree SET there_identifier=x'2F' WHERE here_name=x'64'"); });
  EXPECT_THAT(recovered(), testing::IsSupersetOf({"mine", "made here"}));
  world.connect();
  const auto before = world.server().tree();
  // What a removal without an answer may take yet is fetched before it is shown.
  world.tree();
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.tree(), before);
  EXPECT_EQ(world.server().tree(), before);
}

TEST_F(LoadingTest, AFolderIsLookedAtAnewWhenRowsWereLeftOut) {
  world.server().writeFile("/a", "theirs");
  world.tree();
  restart([this] { changeRows("UPDATE tree SET there_identifier=x'2F' WHERE here_name=x'61'"); });
  world.connect();
  EXPECT_THAT(world.list("/"), ElementsAre("a"));
}

TEST_F(LoadingTest, ARootThatIsAnotherItemIsMadeAnew) {
  for (const char* change :
       {"there_identifier=x'2F64'", "kind=0", "here_folder=NULL,here_name=NULL",
        "there_folder=NULL", "here_folder=7"}) {
    world.connect();
    if (world.server().tree().empty()) world.server().makeFolder("/d");
    EXPECT_THAT(world.list("/"), ElementsAre("d")) << change;
    restart([&] {
      changeRows(("UPDATE tree SET " + std::string(change) + " WHERE number=1").c_str());
    });
    world.connect();
    EXPECT_TRUE(world.settle());
    EXPECT_THAT(world.list("/"), ElementsAre("d")) << change;
  }
}

}  // namespace
}  // namespace kestrowan::test
