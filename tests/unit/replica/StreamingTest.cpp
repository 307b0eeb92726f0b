#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using replica::OpenFile;
using replica::OpenMode;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;

constexpr std::size_t kMiB = 1 << 20;
constexpr std::size_t kPiece = 128 * 1024;
const std::string kFailed = "NSPOSIXErrorDomain " + std::to_string(EIO);
const OpenMode kWriting{.read = true, .write = true};

std::string pattern(std::size_t size, unsigned salt = 0) {
  std::string bytes(size, '\0');
  std::uint32_t state = 12345 + salt;
  for (char& byte : bytes) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

/// A megabyte comes in a second.
InMemoryOptions slowly() {
  InMemoryOptions options;
  options.arriving = Arriving{.piece = 64 * 1024, .step = milliseconds(62)};
  return options;
}

class StreamingTest : public testing::Test {
 protected:
  using File = std::shared_ptr<OpenFile>;

  explicit StreamingTest(replica::Options options = {}, InMemoryOptions manners = slowly())
      : world(std::move(manners), std::move(options)) {
    world.server().writeFile("/film", film);
    world.list("/");
  }

  MemoryArrivals& arrivals() { return world.extension().arrivals(); }
  std::size_t fetches() const { return countOf("fetchContents /film"); }
  std::size_t countOf(const std::string& line) const {
    const auto calls = world_.extension().calls();
    return static_cast<std::size_t>(std::count(calls.begin(), calls.end(), line));
  }
  /// All fetches of the film are delivered like this, one after the other; the last for all further
  /// ones.
  void deliver(std::vector<Arriving> manners) {
    const auto next = std::make_shared<std::size_t>(0);
    world.extension().setFaults([manners, next](const Call& call) {
      Fault fault;
      if (call.kind != CallKind::fetchContents || call.path != "/film") return fault;
      fault.arriving = manners[std::min((*next)++, manners.size() - 1)];
      return fault;
    });
  }
  std::string readAll(const File& file, std::string& error) {
    std::string bytes;
    for (;;) {
      std::string piece;
      error = errorOf([&] {
        piece = world.readArriving(file, static_cast<std::int64_t>(bytes.size()), kPiece);
      });
      if (!error.empty() || piece.empty()) return bytes;
      bytes += piece;
    }
  }
  std::string readAll(const File& file) {
    std::string error;
    auto bytes = readAll(file, error);
    EXPECT_EQ(error, "");
    return bytes;
  }
  /// What is at the server is seen.
  void lookAgain() {
    world.advance(seconds(3));
    world.list("/");
    world.advance(milliseconds(200));
    world.list("/");
  }
  std::string head(const File& file) { return world.readArriving(file, 0, 64 * 1024); }
  bool isHere(std::string_view path) { return world.attributes(path).content != 0; }
  void expectWhole(const File& file, const std::string& bytes) {
    EXPECT_TRUE(readAll(file) == bytes);
  }
  void expectLost(const File& file) {
    EXPECT_EQ(errorOf([&] { world.readArriving(file, 0, 1); }), kFailed);
    EXPECT_EQ(errorOf([&] { world.readArriving(file, 9 * kMiB, kPiece); }), kFailed);
  }

  const std::string film = pattern(10 * kMiB);
  ReplicaWorld world;

 private:
  ReplicaWorld& world_ = world;
};

TEST_F(StreamingTest, FileIsOpenedAndReadBeforeItHasCome) {
  const auto begin = world.loop().now();
  const File file = world.open("/film", {});
  EXPECT_EQ(head(file), film.substr(0, 64 * 1024));
  EXPECT_LT(world.loop().now() - begin, milliseconds(200));
  EXPECT_EQ(world.attributes("/film").size, 10 * kMiB);
  EXPECT_TRUE(file->isArriving());
}

TEST_F(StreamingTest, WholeFileIsReadAndThenHere) {
  const File file = world.open("/film", {});
  expectWhole(file, film);
  world.advance(seconds(1));
  EXPECT_FALSE(file->isArriving());
  EXPECT_TRUE(isHere("/film"));
  expectWhole(file, film);
  EXPECT_TRUE(world.read("/film") == film);
  EXPECT_EQ(fetches(), 1U);
}

TEST_F(StreamingTest, ReaderFarAheadWaits) {
  const File file = world.open("/film", {});
  const auto begin = world.loop().now();
  EXPECT_EQ(world.readArriving(file, 9 * kMiB, 1000), film.substr(9 * kMiB, 1000));
  EXPECT_GT(world.loop().now() - begin, seconds(8));
  EXPECT_EQ(world.readArriving(file, 10 * kMiB - 10, 1000), film.substr(10 * kMiB - 10));
  EXPECT_EQ(world.readArriving(file, 10 * kMiB, 1000), "");
  EXPECT_EQ(world.readArriving(file, 20 * kMiB, 1000), "");
}

TEST_F(StreamingTest, OpenersShareOneFetch) {
  const File first = world.open("/film", {});
  head(first);
  world.advance(seconds(3));
  const auto begin = world.loop().now();
  const File second = world.open("/film", {});
  EXPECT_EQ(head(second), film.substr(0, 64 * 1024));
  EXPECT_LT(world.loop().now() - begin, milliseconds(100));
  expectWhole(second, film);
  expectWhole(first, film);
  EXPECT_EQ(fetches(), 1U);
}

TEST_F(StreamingTest, CutContentsAreAPrefixAndThenAnError) {
  for (std::size_t at = 0; at < 50; ++at) {
    const std::size_t offset = at * film.size() / 50 + at * 37 % 4099;
    deliver({Arriving{.piece = 300000, .cutAfter = offset}});
    File file;
    const auto refused = errorOf([&] { file = world.open("/film", {}); });
    if (!refused.empty()) {
      EXPECT_EQ(offset, 0U);
      continue;
    }
    std::string error;
    const auto bytes = readAll(file, error);
    EXPECT_EQ(error, kFailed) << offset;
    EXPECT_LE(bytes.size(), offset);
    EXPECT_TRUE(bytes == film.substr(0, bytes.size())) << offset;
    expectLost(file);
    EXPECT_FALSE(isHere("/film"));
  }
  deliver({Arriving{}});
  EXPECT_TRUE(world.read("/film") == film);
}

TEST_F(StreamingTest, ContentsThatBreakOffThreeTimesAreLostForTheirHandle) {
  deliver({Arriving{.cutAfter = 5 * kMiB}, Arriving{.cutAfter = 7 * kMiB},
           Arriving{.cutAfter = 6 * kMiB}, Arriving{}});
  const File file = world.open("/film", {});
  std::string error;
  const auto bytes = readAll(file, error);
  EXPECT_EQ(error, kFailed);
  EXPECT_TRUE(bytes == film.substr(0, bytes.size()));
  EXPECT_EQ(fetches(), 3U);
  expectWhole(world.open("/film", {}), film);
  EXPECT_EQ(fetches(), 4U);
  expectLost(file);
}

TEST_F(StreamingTest, CutContentsAreContinuedByTheSameVersion) {
  deliver({Arriving{.cutAfter = 5 * kMiB}, Arriving{.cutAfter = 7 * kMiB}, Arriving{}});
  const File file = world.open("/film", {});
  expectWhole(file, film);
  EXPECT_EQ(fetches(), 3U);
  world.advance(seconds(1));
  EXPECT_TRUE(isHere("/film"));
}

TEST_F(StreamingTest, WithoutAVersionTheRestComesWhenAllOfItHas) {
  deliver({Arriving{.cutAfter = 5 * kMiB, .withoutVersion = true},
           Arriving{.step = milliseconds(50), .withoutVersion = true}});
  const File file = world.open("/film", {});
  EXPECT_TRUE(world.readArriving(file, 0, 4 * kMiB) == film.substr(0, 4 * kMiB));
  const auto begin = world.loop().now();
  EXPECT_EQ(world.readArriving(file, 5 * kMiB, 10), film.substr(5 * kMiB, 10));
  EXPECT_GT(world.loop().now() - begin, seconds(7));
  expectWhole(file, film);
}

TEST_F(StreamingTest, OtherVersionDoesNotContinueWhatWasRead) {
  deliver({Arriving{.cutAfter = 5 * kMiB}, Arriving{}});
  const File file = world.open("/film", {});
  head(file);
  const auto before = world.find("/film");
  const auto newer = pattern(10 * kMiB, 1);
  world.server().writeFile("/film", newer);
  std::string error;
  const auto bytes = readAll(file, error);
  EXPECT_EQ(error, kFailed);
  EXPECT_TRUE(bytes == film.substr(0, bytes.size()));
  expectLost(file);
  world.advance(seconds(40));
  EXPECT_TRUE(world.read("/film") == newer);
  EXPECT_NE(world.find("/film"), before);
  expectLost(file);
}

TEST_F(StreamingTest, WholeContentsStayThoseOfTheirHandle) {
  const File file = world.open("/film", {});
  head(file);
  const auto before = world.find("/film");
  const auto newer = pattern(10 * kMiB, 1);
  world.server().writeFile("/film", newer);
  expectWhole(file, film);
  world.advance(seconds(40));
  EXPECT_TRUE(world.read("/film") == newer);
  EXPECT_NE(world.find("/film"), before);
  expectWhole(file, film);
}

TEST_F(StreamingTest, ListingThatShowsAnotherVersionLeavesTheHandle) {
  const File file = world.open("/film", {});
  head(file);
  const auto before = world.find("/film");
  const auto newer = pattern(3 * kMiB, 1);
  world.server().writeFile("/film", newer);
  lookAgain();
  EXPECT_NE(world.find("/film"), before);
  EXPECT_EQ(world.attributes("/film").size, 3 * kMiB);
  const File other = world.open("/film", {});
  EXPECT_EQ(head(other), newer.substr(0, 64 * 1024));
  expectWhole(file, film);
  expectWhole(other, newer);
}

TEST_F(StreamingTest, FileThatGoesAtTheServerIsReadToItsEnd) {
  const File file = world.open("/film", {});
  head(file);
  world.server().remove("/film");
  lookAgain();
  EXPECT_FALSE(world.exists("/film"));
  expectWhole(file, film);
  world.advance(minutes(1));
  expectWhole(file, film);
}

TEST_F(StreamingTest, OtherSizesThanTheListedOneAreFetchedWhole) {
  for (const auto& manner : {Arriving{.announced = 9 * kMiB}, Arriving{.withoutSize = true},
                             Arriving{.announced = 11 * kMiB}}) {
    deliver({manner});
    const File file = world.open("/film", {});
    EXPECT_FALSE(file->isArriving());
    EXPECT_TRUE(ReplicaWorld::readFrom(*file) == film);
    world.replica().commands().evict(world.find("/film"));
  }
}

TEST_F(StreamingTest, BodyThatIsShorterThanItsHeadSaysIsNotTheWhole) {
  for (const bool isOfNoVersion : {false, true}) {
    world.extension().setFaults([&](const Call& call) {
      Fault fault;
      if (call.kind != CallKind::fetchContents) return fault;
      fault.arriving =
          Arriving{.piece = 300000, .announced = film.size(), .withoutVersion = isOfNoVersion};
      fault.fileSize = 9 * kMiB;
      return fault;
    });
    const File file = world.open("/film", {});
    ASSERT_TRUE(file->isArriving());
    std::string error;
    const auto bytes = readAll(file, error);
    EXPECT_EQ(error, kFailed);
    EXPECT_TRUE(bytes == film.substr(0, bytes.size()));
    expectLost(file);
    EXPECT_FALSE(isHere("/film"));
  }
}

TEST_F(StreamingTest, SmallFilesProgramsAndWritersGetWholeFiles) {
  world.server().writeFile("/small", pattern(kMiB - 1));
  lookAgain();
  EXPECT_FALSE(world.open("/small", {})->isArriving());
  world.await(world.replica().files().setAttributes(world.find("/film"), {.mode = 0755}));
  EXPECT_FALSE(world.open("/film", {})->isArriving());
}

TEST_F(StreamingTest, WriterWaitsForTheWhole) {
  const File reader = world.open("/film", {});
  head(reader);
  const File writer = world.open("/film", kWriting);
  EXPECT_FALSE(writer->isArriving());
  EXPECT_FALSE(reader->isArriving());
  ReplicaWorld::writeTo(*writer, "new", 5);
  EXPECT_EQ(world.readArriving(reader, 0, 10), film.substr(0, 5) + "new" + film.substr(8, 2));
  EXPECT_EQ(fetches(), 1U);
}

TEST_F(StreamingTest, ProgramThatEmptiesTheFileEndsTheStream) {
  const File reader = world.open("/film", {});
  head(reader);
  const auto waiting = world.call(reader->arrival(9 * kMiB, 10));
  world.write("/film", "short");
  world.advance(milliseconds(1));
  EXPECT_TRUE(waiting.hasEnded());
  EXPECT_EQ(world.readArriving(reader, 0, 100), "short");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.server().read("/film"), "short");
  EXPECT_EQ(world.read("/film"), "short");
}

TEST_F(StreamingTest, RemovedRenamedAndReplacedFilesAreReadToTheirEnd) {
  const File renamed = world.open("/film", {});
  head(renamed);
  world.rename("/film", "/movie");
  world.advance(seconds(2));
  expectWhole(renamed, film);
  EXPECT_TRUE(world.read("/movie") == film);

  world.server().writeFile("/b", film);
  world.server().writeFile("/c", film);
  lookAgain();
  const File removed = world.open("/b", {});
  head(removed);
  world.remove("/b");
  world.advance(seconds(2));
  EXPECT_FALSE(world.server().read("/b"));
  expectWhole(removed, film);

  const File replaced = world.open("/c", {});
  head(replaced);
  world.write("/new", "new");
  world.rename("/new", "/c");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(world.read("/c"), "new");
  expectWhole(replaced, film);
  EXPECT_EQ(world.server().read("/c"), "new");
}

TEST_F(StreamingTest, EvictAndDiscardLeaveAStream) {
  const File file = world.open("/film", {});
  head(file);
  world.replica().commands().evict(world.find("/film"));
  errorOf([&] { world.replica().commands().discard(world.find("/film")); });
  expectWhole(file, film);
  world.advance(seconds(1));
  EXPECT_EQ(world.replica().commands().evict(world.find("/film")).evicted, 0);
  EXPECT_TRUE(isHere("/film"));
}

TEST_F(StreamingTest, NothingComesForNoReader) {
  {
    const File file = world.open("/film", {});
    head(file);
  }
  world.advance(seconds(3));
  EXPECT_EQ(arrivals().cancelled(), 1U);
  EXPECT_LT(arrivals().delivered(), kMiB);
  EXPECT_FALSE(isHere("/film"));
  EXPECT_EQ(world.replica().commands().status().fetching, 0);
  EXPECT_FALSE(world.replica().commands().status().held);
  EXPECT_TRUE(world.read("/film") == film);
}

TEST_F(StreamingTest, ReaderWithinTwoSecondsGoesOn) {
  head(world.open("/film", {}));
  world.advance(milliseconds(1900));
  const File file = world.open("/film", {});
  world.advance(seconds(1));
  expectWhole(file, film);
  EXPECT_EQ(fetches(), 1U);
  EXPECT_EQ(arrivals().cancelled(), 0U);
}

TEST_F(StreamingTest, ReaderThatComesAtTheEndBeginsAnew) {
  deliver({Arriving{.stallAfter = kMiB}, Arriving{}});
  head(world.open("/film", {}));
  world.loop().runUntil([&] { return arrivals().cancelled() == 1; }, seconds(5));
  EXPECT_TRUE(world.read("/film") == film);
  EXPECT_EQ(fetches(), 2U);
}

TEST_F(StreamingTest, WhatIsNearlyHereIsFetched) {
  world.readArriving(world.open("/film", {}), 7 * kMiB, 10);
  world.advance(seconds(10));
  EXPECT_EQ(arrivals().cancelled(), 0U);
  EXPECT_TRUE(isHere("/film"));
}

TEST_F(StreamingTest, PinnedFileIsFetchedWhole) {
  const File file = world.open("/film", {});
  head(file);
  world.replica().commands().setPinned(world.find("/film"), true);
  world.advance(seconds(20));
  EXPECT_EQ(arrivals().cancelled(), 0U);
  EXPECT_TRUE(isHere("/film"));
}

TEST_F(StreamingTest, OpenFileComesWholeThoughNothingReadsIt) {
  const File file = world.open("/film", {});
  world.advance(seconds(15));
  EXPECT_TRUE(isHere("/film"));
}

TEST_F(StreamingTest, PeeksCostPeeks) {
  world.extension().setFaults([](const Call&) {
    Fault fault;
    fault.arriving = Arriving{.piece = 64 * 1024, .step = milliseconds(1)};
    return fault;
  });
  for (int i = 0; i < 20; ++i) {
    world.server().writeFile("/photo" + std::to_string(i), pattern(8 * kMiB));
  }
  lookAgain();
  const auto before = arrivals().delivered();
  for (int i = 0; i < 20; ++i) {
    const File file = world.open("/photo" + std::to_string(i), {});
    world.readArriving(file, 0, kMiB);
    world.advance(milliseconds(30));
  }
  world.advance(seconds(10));
  EXPECT_LT(arrivals().delivered() - before, 30 * kMiB);
}

TEST_F(StreamingTest, StalledContentsAreAnError) {
  deliver({Arriving{.stallAfter = 3 * kMiB}});
  const File file = world.open("/film", {});
  std::string error;
  const auto bytes = readAll(file, error);
  EXPECT_EQ(error, kFailed);
  EXPECT_TRUE(bytes == film.substr(0, bytes.size()));
}

TEST_F(StreamingTest, ManyStalledStreamsLeaveRoomForOtherFiles) {
  for (int i = 0; i < 10; ++i) {
    world.server().writeFile("/stalled" + std::to_string(i), pattern(2 * kMiB));
  }
  world.server().writeFile("/large", pattern(600000));
  world.server().writeFile("/small", "small");
  lookAgain();
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.path.starts_with("/stalled")) fault.arriving = Arriving{.stallAfter = 100000};
    return fault;
  });
  std::vector<File> files;
  const auto begin = world.loop().now();
  for (int i = 0; i < 10; ++i) files.push_back(world.open("/stalled" + std::to_string(i), {}));
  EXPECT_EQ(world.read("/small"), "small");
  EXPECT_EQ(world.read("/large"), pattern(600000));
  EXPECT_LT(world.loop().now() - begin, seconds(3));
}

TEST_F(StreamingTest, ManyStalledStreamsLeaveFilesFetchedAhead) {
  world.server().makeFolder("/notes");
  for (int i = 10; i < 34; ++i) {
    world.server().writeFile("/stalled" + std::to_string(i), pattern(2 * kMiB));
    world.server().writeFile("/notes/" + std::to_string(i), "text");
  }
  lookAgain();
  world.list("/notes");
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.path.starts_with("/stalled")) fault.arriving = Arriving{.stallAfter = 100000};
    return fault;
  });
  std::vector<File> files;
  for (int i = 10; i < 24; ++i) files.push_back(world.open("/stalled" + std::to_string(i), {}));
  for (int i = 10; i < 13; ++i) world.read("/notes/" + std::to_string(i));
  world.advance(milliseconds(100));
  EXPECT_TRUE(isHere("/notes/14"));
  EXPECT_TRUE(isHere("/notes/20"));
}

TEST_F(StreamingTest, EndOfTheReplicaEndsReads) {
  File file = world.open("/film", {});
  head(file);
  auto waiting = world.call(file->arrival(9 * kMiB, 10));
  world.replica().stop();
  world.loop().runUntilIdle();
  ASSERT_TRUE(waiting.hasEnded());
  EXPECT_EQ(errorOf([&] { waiting.result(); }), kFailed);
  file.reset();
}

class UnstreamedTest : public StreamingTest {
 protected:
  static replica::Options off() {
    replica::Options options;
    options.streamFrom = 0;
    return options;
  }
  UnstreamedTest() : StreamingTest(off()) {}
};

TEST_F(UnstreamedTest, EveryFileIsFetchedBeforeItIsOpened) {
  const File file = world.open("/film", {});
  EXPECT_FALSE(file->isArriving());
  EXPECT_TRUE(ReplicaWorld::readFrom(*file) == film);
}

/// A provider that does not tell what of a file has arrived.
class UntoldTest : public StreamingTest {
 protected:
  static InMemoryOptions silently() {
    auto options = slowly();
    options.tellsOfArrivals = false;
    return options;
  }
  UntoldTest() : StreamingTest({}, silently()) {}
};

TEST_F(UntoldTest, FilesAreFetchedBeforeTheyAreOpened) {
  const File file = world.open("/film", {});
  EXPECT_FALSE(file->isArriving());
  EXPECT_TRUE(ReplicaWorld::readFrom(*file) == film);
}

}  // namespace
}  // namespace kestrowan::test
