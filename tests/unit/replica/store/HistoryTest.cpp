#include "replica/store/History.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "StoreFixture.h"

namespace kestrowan::replica::store {
namespace {

using model::Attributes;
using model::Content;
using model::Edit;
using model::Here;
using model::ItemNumber;
using model::Kind;
using model::Origin;
using std::chrono::milliseconds;
using std::chrono::minutes;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class HistoryTest : public StoreFixture {
 protected:
  HistoryTest() { loop_.advance(minutes(10)); }

  static HistoryEntry without(ContentNumber content, std::int64_t size,
                              Confirmed confirmed = Confirmed::never) {
    return {.content = content, .path = "/a", .size = size, .at = 100, .confirmed = confirmed};
  }
  std::int64_t taken(Content content) { return files().allocated(plain(content)).value_or(0); }
  void expectUsage(std::int64_t files, std::int64_t bytes) {
    EXPECT_EQ(history().usage().files, files);
    EXPECT_EQ(history().usage().bytes, bytes);
  }
};

TEST_F(HistoryTest, HasWhatANewerSaveReplaced) {
  const ItemNumber file = addHere("a", Content{20}, 5);
  loop_.advance(minutes(2));
  save(file, Content{21}, 6);
  const auto kept = entry(Content{20});
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->item, static_cast<Rid>(file));
  EXPECT_EQ(kept->path, "/a");
  EXPECT_EQ(kept->size, 5);
  EXPECT_EQ(kept->at, seconds());
  EXPECT_EQ(kept->reason, HistoryReason::replaced);
  EXPECT_EQ(kept->confirmed, Confirmed::never);
  EXPECT_TRUE(kept->version.empty());
  EXPECT_FALSE(entry(Content{21}));
  expectUsage(1, 5);
}

TEST_F(HistoryTest, HasTheProvidersVersionOfWhatItConfirmed) {
  const ItemNumber file = add(Kind::file, "a", ItemNumber::root, Content{20}, 7);
  save(file, Content{21}, 6);
  const auto kept = entry(Content{20});
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->confirmed, Confirmed::once);
  EXPECT_EQ(kept->version, "1");
  EXPECT_EQ(kept->size, 7);
  EXPECT_EQ(history().usage().unconfirmedFiles, 0);
}

TEST_F(HistoryTest, TellsWhyContentsLeft) {
  struct Case {
    Origin origin;
    bool isReplaced;
    HistoryReason reason;
  };
  std::uint64_t next = 20;
  for (const Case& each : {Case{Origin::program, true, HistoryReason::replaced},
                           Case{Origin::program, false, HistoryReason::removed},
                           Case{Origin::other, true, HistoryReason::updated},
                           Case{Origin::other, false, HistoryReason::vanished},
                           Case{Origin::user, true, HistoryReason::discarded},
                           Case{Origin::user, false, HistoryReason::discarded}}) {
    const Content content{next++};
    const ItemNumber file = addHere(std::to_string(next), content, 5);
    if (each.isReplaced) {
      save(file, Content{next++}, 5, each.origin);
    } else {
      drop(file, each.origin);
    }
    ASSERT_TRUE(entry(content));
    EXPECT_EQ(entry(content)->reason, each.reason);
  }
}

TEST_F(HistoryTest, TellsWhatIsNeverSent) {
  const ItemNumber file = addHere("a", Content{20}, 5);
  Attributes stays;
  stays.localOnly = true;
  stays.size = 5;
  {
    Edit edit(tree());
    edit.setAttributes(file, stays);
    edit.commit();
  }
  drop(file, Origin::program);
  EXPECT_EQ(entry(Content{20})->confirmed, Confirmed::notSent);
}

TEST_F(HistoryTest, HasNothingOfAnEditThatIsNotMade) {
  const ItemNumber file = addHere("a", Content{20}, 5);
  journal().look([&] {
    journal().database().execute(
        "CREATE TEMP TRIGGER no BEFORE DELETE ON tree"
        " BEGIN SELECT RAISE(ABORT,'no'); END");
  });
  EXPECT_THROW(drop(file, Origin::program), NSError);
  EXPECT_FALSE(entry(Content{20}));
  expectUsage(0, 0);
  journal().look([&] { journal().database().execute("DROP TRIGGER no"); });
  drop(file, Origin::program);
  expectUsage(1, 5);
}

TEST_F(HistoryTest, HasNothingOfContentsThatStayAnItems) {
  const ItemNumber file = addHere("a", Content{20}, 5);
  {
    Edit edit(tree(), Origin::program);
    edit.setHere(file, Here{{ItemNumber::root, "b"}, Content{20}});
    edit.commit();
  }
  expectUsage(0, 0);
}

TEST_F(HistoryTest, HasNothingOfEmptyContents) {
  const Content empty = made("");
  drop(addHere("a", empty, 0), Origin::program);
  drop(addHere("b", Content{9000}, 0), Origin::program);
  expectUsage(0, 0);
}

/// The row of an item is written when a program closes its file.
TEST_F(HistoryTest, HasWhatWasWrittenToAFileThatIsStillOpen) {
  const Content written = made("precious");
  drop(addHere("a", written, 0), Origin::program);
  ASSERT_TRUE(entry(written));
  EXPECT_EQ(entry(written)->size, 8);
  const Content unknown = made("more");
  drop(addHere("b", unknown), Origin::program);
  ASSERT_TRUE(entry(unknown));
  EXPECT_EQ(entry(unknown)->size, 4);
  expectUsage(2, taken(written) + taken(unknown));
}

TEST_F(HistoryTest, CountsWhatContentsTakeOfTheDisk) {
  constexpr std::int64_t kTebibyte = std::int64_t{1} << 40;
  const Content sparse = made("begin");
  ASSERT_EQ(::truncate(files().path(plain(sparse)).c_str(), kTebibyte), 0);
  drop(addHere("a", sparse, kTebibyte), Origin::program);
  ASSERT_TRUE(entry(sparse));
  EXPECT_EQ(entry(sparse)->size, kTebibyte);
  EXPECT_EQ(entry(sparse)->allocated, taken(sparse));
  expectUsage(1, taken(sparse));
  EXPECT_LT(taken(sparse), kTebibyte / 1000);
  history().setLimit(kTebibyte / 1000);
  EXPECT_NO_THROW(history().requireRoom());
  history().remove({*entry(sparse)});
  expectUsage(0, 0);
}

/// As it may be after the death of a host, or on a disk that tells it late.
TEST_F(HistoryTest, LooksUpAtAStartWhatContentsTake) {
  const Content content = made("bytes");
  history().keep({without(plain(content), 5)});
  writeFile(files().path(plain(content)), std::string(100'000, 'x'));
  restart();
  history().load({plain(content)});
  EXPECT_GE(taken(content), 100'000);
  expectUsage(1, taken(content));
  history().remove({*entry(content)});
  expectUsage(0, 0);
}

TEST_F(HistoryTest, OfTheVersionBeforeGetsWhatItsContentsTake) {
  const Content content = made("bytes");
  history().keep({without(plain(content), std::int64_t{1} << 40)});
  restart("ALTER TABLE history DROP COLUMN allocated; PRAGMA user_version=100");
  history().load({plain(content)});
  ASSERT_TRUE(entry(content));
  EXPECT_EQ(entry(content)->size, std::int64_t{1} << 40);
  expectUsage(1, taken(content));
  restart();
  EXPECT_EQ(entry(content)->allocated, taken(content));
}

TEST_F(HistoryTest, HasOneVersionAMinuteOfAFileThatIsSavedAgainAndAgain) {
  const ItemNumber file = addHere("a", Content{20}, 5);
  for (std::uint64_t i = 21; i < 31; ++i) {
    save(file, Content{i}, 5);
    loop_.advance(std::chrono::seconds(10));
  }
  // Saved at 0, 10, 20 … 90 s; what was there before is no part of the succession.
  EXPECT_TRUE(entry(Content{20}));
  EXPECT_EQ(history().usage().files, 2);
  EXPECT_TRUE(entry(Content{26})) << "the first that left a minute after";
}

TEST_F(HistoryTest, KeepsAVersionOfWhatWasNotSavedJustNow) {
  const ItemNumber file = addHere("a", Content{20}, 5);
  save(file, Content{21}, 5);
  loop_.advance(minutes(2));
  save(file, Content{22}, 5);
  loop_.advance(minutes(2));
  save(file, Content{23}, 5);
  EXPECT_TRUE(entry(Content{21}));
  EXPECT_TRUE(entry(Content{22}));
}

TEST_F(HistoryTest, NeverThinsOutWhatCameFromTheProvider) {
  const ItemNumber file = addHere("a", Content{20}, 5);
  save(file, Content{21}, 5);
  save(file, Content{22}, 5, Origin::other);
  save(file, Content{23}, 5);
  EXPECT_TRUE(entry(Content{20}));
  EXPECT_TRUE(entry(Content{22})) << "although another version left just before";
}

TEST_F(HistoryTest, AVersionOfTheProvidersIsKeptBeforeItIsChangedInPlace) {
  history().noteWritten(20);
  history().keepVersion(without(20, 5), 1);
  EXPECT_FALSE(history().isVersionDue("/a", 20));
  EXPECT_TRUE(history().isVersionDue("/a", 21));
}

TEST_F(HistoryTest, NeverThinsOutWhatIsRemoved) {
  for (std::uint64_t i = 20; i < 25; ++i) {
    const ItemNumber file = addHere("a", Content{i}, 5);
    save(file, Content{i + 100}, 5);
    drop(file, Origin::program);
    EXPECT_TRUE(entry(Content{i + 100}));
  }
}

TEST_F(HistoryTest, AVersionBeforeAChangeInPlaceIsKeptAtThePaceOfItsCost) {
  EXPECT_TRUE(history().isVersionDue("/a", 21));
  history().keepVersion(without(20, 5), 10'000);
  history().noteWritten(21);
  EXPECT_FALSE(history().isVersionDue("/a", 21));
  EXPECT_TRUE(history().isVersionDue("/b", 21));
  loop_.advance(milliseconds(189'999));
  history().noteWritten(21);
  EXPECT_FALSE(history().isVersionDue("/a", 21));
  loop_.advance(milliseconds(1));
  EXPECT_TRUE(history().isVersionDue("/a", 21));
  expectUsage(1, 5);
}

TEST_F(HistoryTest, KnowsTheSizeThatAProgramLeavesBehind) {
  history().keep({without(20, 5)});
  history().resize(20, 50);
  EXPECT_EQ(history().find(20)->size, 50);
  expectUsage(1, 50);
  EXPECT_EQ(history().usage().unconfirmedBytes, 50);
  history().resize(20, 50);
  history().resize(21, 50);
  expectUsage(1, 50);
  EXPECT_FALSE(history().find(21));
}

TEST_F(HistoryTest, AsksForRoomWhenWhatTheProviderNeverHadTakesMoreThanItsLimit) {
  history().setLimit(10);
  EXPECT_EQ(history().limit(), 10);
  history().keep({without(20, 100, Confirmed::once), without(21, 100, Confirmed::notSent)});
  EXPECT_NO_THROW(history().requireRoom());
  history().keep({without(22, 10)});
  EXPECT_NO_THROW(history().requireRoom());
  history().keep({without(23, 1)});
  try {
    history().requireRoom();
    ADD_FAILURE() << "there is room";
  } catch (const NSError& error) {
    EXPECT_EQ(error.code(), ENOSPC);
  }
  history().remove({without(23, 1)});
  EXPECT_NO_THROW(history().requireRoom());
}

TEST_F(HistoryTest, RemovesThoseThatAreStillThereAndGivesThemAsTheyAre) {
  history().keep({without(20, 5), without(21, 6)});
  history().resize(20, 50);
  const auto removed = history().remove({without(20, 5), without(22, 7)});
  ASSERT_EQ(removed.size(), 1U);
  EXPECT_EQ(removed[0].content, 20U);
  EXPECT_EQ(removed[0].size, 50);
  expectUsage(1, 6);
  EXPECT_THAT(history().remove({without(20, 5)}), IsEmpty());
  EXPECT_THAT(history().remove({}), IsEmpty());
  EXPECT_THAT(history().among({20, 21, 22}), UnorderedElementsAre(21U));
}

TEST_F(HistoryTest, LoadsWhatHasAFileAndForgetsTheRest) {
  history().keep({without(20, 5), without(21, 6), without(22, 7, Confirmed::once)});
  restart();
  expectUsage(0, 0);
  history().load({20, 22, 99});
  expectUsage(2, 12);
  EXPECT_EQ(history().usage().unconfirmedBytes, 5);
  EXPECT_FALSE(history().find(21));
  restart();
  history().load({20, 21, 22});
  expectUsage(2, 12);
}

TEST_F(HistoryTest, CountsOnceWhatLeftBeforeItWasLoaded) {
  drop(addHere("a", Content{20}, 5), Origin::other);
  drop(addHere("b", Content{21}, 6), Origin::other);
  history().load({20});
  expectUsage(1, 5);
}

TEST_F(HistoryTest, GivesPagesInTheOrderOfTheirAge) {
  auto older = without(22, 1);
  older.at = 50;
  history().keep({without(21, 1), without(20, 1), older});
  const auto page = history().page(Confirmed::never, {}, 2);
  ASSERT_EQ(page.size(), 2U);
  EXPECT_EQ(page[0].content, 22U);
  EXPECT_EQ(page[1].content, 20U);
}

TEST_F(HistoryTest, HasTheDateOfTheFile) {
  const ItemNumber file = addHere("a", Content{20}, 5);
  Attributes dated;
  dated.size = 5;
  dated.modified = model::FileTime(std::chrono::nanoseconds(17));
  {
    Edit edit(tree());
    edit.setAttributes(file, dated);
    edit.commit();
  }
  drop(file, Origin::program);
  EXPECT_EQ(entry(Content{20})->modified, 17);
}

TEST_F(HistoryTest, NamesThePlaceThatContentsLeft) {
  const ItemNumber folder = add(Kind::folder, "d");
  const ItemNumber file = add(Kind::file, "f", folder, Content{20}, 5);
  {
    Edit edit(tree(), Origin::program);
    edit.setHere(file, {});
    edit.setHere(folder, {});
    edit.commit();
  }
  EXPECT_EQ(entry(Content{20})->path, "/d/f");
  EXPECT_EQ(entry(Content{20})->reason, HistoryReason::removed);
}

}  // namespace
}  // namespace kestrowan::replica::store
