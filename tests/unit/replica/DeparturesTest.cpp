#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

namespace fs = std::filesystem;
using replica::Confirmed;
using replica::HistoryEntry;
using replica::HistoryReason;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

/// A file of so many bytes, or of a multiple, takes as many of the disk.
constexpr std::int64_t kBlock = 4096;

std::string blocks(std::int64_t count) {
  return std::string(static_cast<std::size_t>(count * kBlock), 'x');
}

replica::Options withHistoryOf(std::int64_t blocks) {
  replica::Options options;
  options.historyLimit = blocks * kBlock;
  return options;
}

/// Contents that leave their item go to the history.
class DeparturesTest : public testing::Test {
 protected:
  DeparturesTest() { world.list("/"); }

  std::vector<HistoryEntry> entries() {
    return world.replica().commands().history({}, 100000).entries;
  }
  /// What the contents take of the disk.
  std::int64_t bytesOnDisk() {
    const replica::ContentFiles files(world.directory());
    std::int64_t bytes = 0;
    for (const auto number : files.numbers()) bytes += files.allocated(number).value_or(0);
    return bytes;
  }
  HistoryEntry only() {
    const auto all = entries();
    EXPECT_THAT(all, SizeIs(1));
    return all.empty() ? HistoryEntry() : all.front();
  }
  /// Nothing is sent from here on.
  void goOffline() {
    world.extension().setDown(true);
    world.advance(minutes(3));
  }
  /// A file that is here and at the server.
  void have(std::string_view path, std::string_view bytes) {
    world.server().writeFile(path, bytes);
    world.advance(seconds(40));
    EXPECT_EQ(world.read(path), bytes);
  }
  std::vector<std::string> filesHere() const {
    std::vector<std::string> names;
    for (const auto& file : fs::directory_iterator(world.directory() + "/contents")) {
      names.push_back(file.path().filename());
    }
    return names;
  }

  ReplicaWorld world{{}, withHistoryOf(1000)};
};

// ---- every way out -----------------------------------------------------------------------------

TEST_F(DeparturesTest, EmptiedContentsAreKeptAsTheyAre) {
  have("/a", "first");
  world.write("/a", "second");
  EXPECT_THAT(world.history(), ElementsAre("first"));
  EXPECT_EQ(only().path, "/a");
  EXPECT_EQ(only().reason, HistoryReason::replaced);
  EXPECT_EQ(only().confirmed, Confirmed::once);
  EXPECT_EQ(only().size, 5);
  EXPECT_FALSE(only().version.empty());
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "second");
}

TEST_F(DeparturesTest, TheFileThatANewOneIsRenamedOverIsKept) {
  world.server().makeFolder("/d");
  have("/d/report", "first");
  world.write("/d/report.new", "second");
  world.rename("/d/report.new", "/d/report");
  EXPECT_THAT(world.history(), ElementsAre("first"));
  EXPECT_EQ(only().path, "/d/report");
  EXPECT_EQ(only().reason, HistoryReason::replaced);
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/d/report"), "second");
}

TEST_F(DeparturesTest, AChangeInPlaceKeepsTheVersionBefore) {
  have("/a", "first");
  world.append("/a", ", more");
  EXPECT_THAT(world.history(), ElementsAre("first"));
  EXPECT_EQ(only().confirmed, Confirmed::once);
  EXPECT_EQ(world.read("/a"), "first, more");
  EXPECT_TRUE(world.settle());
  world.advance(minutes(2));
  world.append("/a", ", and more");
  EXPECT_THAT(world.history(), ElementsAre("first, more", "first"));
}

TEST_F(DeparturesTest, OneFileThatStaysOpenIsOneVersionUntilItIsSent) {
  have("/a", "first");
  const auto file = world.open("/a", {.read = true, .write = true});
  for (int i = 0; i < 10; ++i) {
    ReplicaWorld::writeTo(*file, "xxxxx");
    world.advance(seconds(5));
  }
  EXPECT_THAT(world.history(), ElementsAre("first"));
}

TEST_F(DeparturesTest, ARemovedFileIsKeptWithItsFolder) {
  world.server().makeFolder("/d");
  have("/d/a", "bytes");
  world.remove("/d/a");
  EXPECT_TRUE(world.settle());
  EXPECT_THAT(world.history(), ElementsAre("bytes"));
  EXPECT_EQ(only().path, "/d/a");
  EXPECT_EQ(only().reason, HistoryReason::removed);
  EXPECT_EQ(only().confirmed, Confirmed::once);
}

TEST_F(DeparturesTest, AWholeTreeThatWasRemovedIsKeptWithItsPaths) {
  world.server().makeFolder("/d");
  world.server().makeFolder("/d/e");
  have("/d/e/a", "in a");
  have("/d/b", "in b");
  goOffline();
  world.remove("/d/e/a");
  world.removeFolder("/d/e");
  world.remove("/d/b");
  world.removeFolder("/d");
  world.extension().setDown(false);
  EXPECT_TRUE(world.settle());
  EXPECT_THAT(world.server().tree(), IsEmpty());
  std::vector<std::string> paths;
  for (const auto& entry : entries()) paths.push_back(entry.path);
  EXPECT_THAT(paths, UnorderedElementsAre("/d/e/a", "/d/b"));
}

TEST_F(DeparturesTest, WhatWasNeverHereIsNotFetchedForIt) {
  world.server().writeFile("/a", "bytes");
  world.advance(seconds(40));
  world.list("/");
  world.extension().clearCalls();
  world.remove("/a");
  EXPECT_TRUE(world.settle());
  EXPECT_THAT(entries(), IsEmpty());
  EXPECT_EQ(world.extension().count(CallKind::fetchContents), 0u);
}

TEST_F(DeparturesTest, WhatTheProviderReplacesOrDropsIsKept) {
  have("/a", "first");
  have("/b", "bytes");
  world.server().writeFile("/a", "theirs");
  world.server().remove("/b");
  world.advance(minutes(2));
  EXPECT_EQ(world.read("/a"), "theirs");
  EXPECT_FALSE(world.exists("/b"));
  EXPECT_THAT(world.history(), UnorderedElementsAre("first", "bytes"));
  for (const auto& entry : entries()) {
    EXPECT_EQ(entry.reason, entry.path == "/a" ? HistoryReason::updated : HistoryReason::vanished);
    EXPECT_EQ(entry.confirmed, Confirmed::once);
  }
}

TEST_F(DeparturesTest, DiscardedChangesAreKeptHoweverLargeOneOfThemIs) {
  goOffline();
  world.write("/small", "only here");
  EXPECT_EQ(world.replica().commands().discard(world.find("/small")), 1u);
  world.write("/large", blocks(1500));
  EXPECT_EQ(world.replica().commands().discard(world.find("/large")), 1u);
  world.advance(minutes(30));
  EXPECT_THAT(world.history(), UnorderedElementsAre("only here", blocks(1500)));
}

TEST_F(DeparturesTest, OrdinaryWorkPushesNothingOutThatIsNowhereElse) {
  constexpr int kMany = 500;
  goOffline();
  world.write("/precious", "the only copy");
  world.replica().commands().discard(world.find("/precious"));
  world.extension().setDown(false);
  EXPECT_TRUE(world.settle());
  for (int i = 0; i < kMany; ++i) world.write("/" + std::to_string(i), blocks(3));
  EXPECT_TRUE(world.settle());
  for (int i = 0; i < kMany; ++i) world.remove("/" + std::to_string(i));
  world.write("/waits", "an upload");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.replica().commands().status().history.files, kMany + 1);
  world.advance(minutes(5));
  const auto usage = world.replica().commands().status().history;
  EXPECT_LE(usage.bytes, 1000 * kBlock);
  EXPECT_EQ(usage.unconfirmedFiles, 1);
  EXPECT_THAT(world.history(), testing::Contains("the only copy"));
  EXPECT_THAT(filesHere(), SizeIs(static_cast<std::size_t>(usage.files) + 1));
}

TEST_F(DeparturesTest, EmptyFilesAreNotKept) {
  world.write("/a", "");
  world.write("/a", "bytes");
  world.write("/b", "");
  world.remove("/b");
  EXPECT_TRUE(world.settle());
  EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(DeparturesTest, ContentsThatWereSentMeanwhileAreKeptAsSent) {
  world.extension().setLatency(seconds(20));
  world.write("/a", "first");
  for (int i = 0; i < 100 && world.extension().count(CallKind::createItem) == 0; ++i) {
    world.advance(seconds(1));
  }
  ASSERT_EQ(world.extension().count(CallKind::createItem), 1u);
  world.append("/a", ", more");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/a"), "first, more");
  EXPECT_THAT(world.history(), ElementsAre("first"));
  EXPECT_EQ(only().confirmed, Confirmed::once);
}

TEST_F(DeparturesTest, WhatIsWrittenAfterItsRemovalCounts) {
  goOffline();
  auto file = world.create("/a");
  ReplicaWorld::writeTo(*file, "12345");
  world.remove("/a");
  const std::string more(100'000, 'x');
  ReplicaWorld::writeTo(*file, more);
  EXPECT_EQ(ReplicaWorld::readFrom(*file), more);
  file.reset();
  EXPECT_THAT(world.history(), ElementsAre(more));
  EXPECT_EQ(only().size, 100'000);
  const auto usage = world.replica().commands().status().history;
  EXPECT_GE(usage.bytes, 100'000);
  EXPECT_EQ(usage.bytes, bytesOnDisk());
  EXPECT_EQ(usage.unconfirmedBytes, usage.bytes);
}

TEST_F(DeparturesTest, EvictedContentsAreNotKept) {
  have("/a", "bytes");
  world.replica().commands().evict(replica::kRootRid);
  EXPECT_THAT(entries(), IsEmpty());
  EXPECT_THAT(filesHere(), IsEmpty());
}

TEST_F(DeparturesTest, ContentsLieUnderNumbersWhateverTheirName) {
  goOffline();
  const std::string name = "/..\\..\n\xFF etc passwd";
  world.write(name, "bytes");
  world.remove(name);
  EXPECT_EQ(only().path, name);
  EXPECT_THAT(filesHere(), ElementsAre(std::to_string(only().content)));
}

// ---- how many, how much, how long --------------------------------------------------------------

TEST_F(DeparturesTest, SavesInQuickSuccessionKeepOneVersionAMinute) {
  have("/a", "0");
  goOffline();
  for (int i = 1; i <= 30; ++i) {
    world.write("/a", std::to_string(i));
    world.advance(seconds(10));
  }
  EXPECT_THAT(world.history(), ElementsAre("24", "18", "12", "6", "0"));
  world.remove("/a");
  world.extension().setDown(false);
  EXPECT_TRUE(world.settle());
  EXPECT_THAT(world.history(), ElementsAre("30", "24", "18", "12", "6", "0"));
}

TEST_F(DeparturesTest, SavesByRenamingKeepOneVersionAMinuteToo) {
  have("/a", "0");
  goOffline();
  for (int i = 1; i <= 12; ++i) {
    world.write("/a.new", std::to_string(i));
    world.rename("/a.new", "/a");
    world.advance(seconds(10));
  }
  EXPECT_THAT(world.history(), ElementsAre("6", "0"));
  EXPECT_EQ(world.read("/a"), "12");
}

TEST_F(DeparturesTest, AnOldFileIsNoSaveInQuickSuccession) {
  have("/report", "report");
  have("/draft", "draft");
  goOffline();
  world.rename("/draft", "/report");
  world.write("/new", "new");
  world.rename("/new", "/report");
  EXPECT_THAT(world.history(), ElementsAre("draft", "report"));
}

TEST_F(DeparturesTest, WhatIsOlderThanAWeekGoes) {
  goOffline();
  world.write("/a", "bytes");
  world.remove("/a");
  world.advance(hours(6 * 24));
  EXPECT_THAT(world.history(), ElementsAre("bytes"));
  world.advance(hours(25));
  EXPECT_THAT(entries(), IsEmpty());
  EXPECT_THAT(filesHere(), IsEmpty());
}

TEST_F(DeparturesTest, WhatTheServerStillHasGoesFirst) {
  have("/still", blocks(600));
  have("/gone", blocks(600));
  world.remove("/gone");
  EXPECT_TRUE(world.settle());
  goOffline();
  world.write("/still", "changed here");
  EXPECT_THAT(entries(), SizeIs(2));
  world.advance(minutes(2));
  EXPECT_EQ(only().path, "/gone");
}

TEST_F(DeparturesTest, NothingCanBeWrittenWhileWhatMustNotGoFillsIt) {
  have("/a", "here");
  goOffline();
  world.write("/large", blocks(1001));
  world.remove("/large");
  const auto full = "NSPOSIXErrorDomain " + std::to_string(ENOSPC);
  EXPECT_TRUE(world.replica().commands().status().isHistoryFull());
  EXPECT_EQ(errorOf([&] { world.write("/a", "new"); }), full);
  EXPECT_EQ(errorOf([&] { world.append("/a", "new"); }), full);
  EXPECT_EQ(errorOf([&] { world.create("/b"); }), full);
  EXPECT_EQ(world.read("/a"), "here");
  world.rename("/a", "/c");
  world.makeFolder("/d");
  EXPECT_EQ(world.replica().commands().clearHistory({.path = "/other"}).files, 0);
  EXPECT_EQ(world.replica().commands().clearHistory({.path = "/large"}).bytes, 1001 * kBlock);
  EXPECT_FALSE(world.replica().commands().status().isHistoryFull());
  world.write("/c", "new");
  EXPECT_EQ(world.read("/c"), "new");
}

TEST_F(DeparturesTest, ClearingTakesWhatIsMeantAndItsFiles) {
  goOffline();
  world.makeFolder("/d");
  for (const char* path : {"/d/a", "/d/b", "/da", "/c"}) {
    world.write(path, path);
    world.remove(path);
    world.advance(hours(1));
  }
  EXPECT_EQ(world.replica().commands().clearHistory({.path = "/d"}).files, 2);
  EXPECT_THAT(world.history(), ElementsAre("/c", "/da"));
  const auto now = world.loop().wallClock() / 1000;
  EXPECT_EQ(world.replica().commands().clearHistory({.before = now - 5400}).files, 1);
  EXPECT_THAT(world.history(), ElementsAre("/c"));
  EXPECT_EQ(world.replica().commands().clearHistory({}).files, 1);
  EXPECT_THAT(filesHere(), IsEmpty());
  EXPECT_EQ(world.replica().commands().status().history.files, 0);
}

TEST_F(DeparturesTest, TheListIsAsLongAsItIsAskedFor) {
  goOffline();
  for (int i = 0; i < 600; ++i) {
    world.write("/" + std::to_string(i), "x");
    world.remove("/" + std::to_string(i));
    if (i % 100 == 0) world.advance(seconds(1));
  }
  const auto list = world.replica().commands().history({}, 2);
  EXPECT_EQ(list.files, 600);
  EXPECT_EQ(list.bytes, bytesOnDisk());
  ASSERT_THAT(list.entries, SizeIs(2));
  EXPECT_EQ(list.entries.front().path, "/599");
}

// ---- over restarts -----------------------------------------------------------------------------

TEST_F(DeparturesTest, ANewStartFindsEverythingAgain) {
  have("/a", "first");
  goOffline();
  world.write("/a", "second");
  world.write("/b", "never sent");
  world.remove("/b");
  const auto before = entries();
  const auto usage = world.replica().commands().status().history;
  world.crashUnconnected();
  EXPECT_EQ(entries(), before);
  EXPECT_THAT(world.history(), UnorderedElementsAre("first", "never sent"));
  EXPECT_EQ(world.replica().commands().status().history.unconfirmedBytes, usage.unconfirmedBytes);
}

TEST_F(DeparturesTest, RowsWithoutAFileAreForgotten) {
  goOffline();
  world.write("/a", "bytes");
  world.remove("/a");
  const auto number = only().content;
  world.crashUnconnected(
      [&] { fs::remove(world.directory() + "/contents/" + std::to_string(number)); });
  EXPECT_THAT(entries(), IsEmpty());
  EXPECT_EQ(world.replica().commands().status().history.files, 0);
}

TEST_F(DeparturesTest, TheFormerRecoveryAreaIsTakenOver) {
  const fs::path recovery = world.directory() + "/recovery";
  world.crashUnconnected([&] {
    fs::create_directories(recovery / "2026-01-31T12-00-00Z contents of a lost database");
    std::ofstream(recovery / "2026-01-31T12-00-00Z report.txt") << "first";
    std::ofstream(recovery / "2026-01-31T12-00-01Z report (2).txt") << "second";
    std::ofstream(recovery / "2026-01-31T12-00-02Z unnamed") << "third";
    std::ofstream(recovery / "2026-01-31T12-00-00Z contents of a lost database" / "17") << "fourth";
    std::ofstream(recovery / "mine") << "fifth";
  });
  EXPECT_FALSE(fs::exists(recovery));
  EXPECT_THAT(world.history(), UnorderedElementsAre("first", "second", "third", "fourth", "fifth"));
  std::vector<std::string> paths;
  for (const auto& entry : entries()) {
    paths.push_back(entry.path);
    EXPECT_EQ(entry.confirmed, Confirmed::never);
  }
  EXPECT_THAT(paths, UnorderedElementsAre("report.txt", "report (2).txt", "", "", "mine"));
  EXPECT_EQ(world.replica().commands().status().history.bytes, bytesOnDisk());
  world.crashUnconnected();
  EXPECT_THAT(entries(), SizeIs(5));
}

TEST_F(DeparturesTest, WhatCannotBeTakenOverStaysUntilItCan) {
  const fs::path recovery = world.directory() + "/recovery";
  const auto link = recovery / "2026-01-31T12-00-00Z link";
  world.crashUnconnected([&] {
    fs::create_directory(recovery);
    fs::create_symlink("/etc/hostname", link);
    std::ofstream(recovery / "2026-01-31T12-00-00Z report.txt") << "first";
  });
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_THAT(world.history(), ElementsAre("first"));
}

}  // namespace
}  // namespace kestrowan::test
