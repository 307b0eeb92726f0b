#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <vector>

#include "ItemStoreSupport.h"
#include "platform/base/UniqueFd.h"
#include "replica/store/Database.h"

namespace kestrowan::replica {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// What becomes of the store when processes end, disks lie and files are spoilt.
class ItemStoreDamageTest : public ItemStoreFixture {
 protected:
  /// The database's files as they are at the moment, in a directory of their own.
  std::string copyFiles() {
    const auto copy = directory() + "/copy";
    fs::remove_all(copy);
    fs::create_directory(copy);
    for (const auto& path : {file(), logFile()}) {
      if (fs::exists(path)) fs::copy_file(path, fs::path(copy) / fs::path(path).filename());
    }
    return copy;
  }

  /// Runs statements on the closed database.
  void alter(const char* statements) {
    close();
    Database(file()).execute(statements);
  }

  void overwrite(const std::string& path, off_t at, std::string_view bytes) {
    const UniqueFd file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(::pwrite(file.get(), bytes.data(), bytes.size(), at),
              static_cast<ssize_t>(bytes.size()));
  }
};

TEST_F(ItemStoreDamageTest, WhatIsCommittedSurvivesTheDeathOfTheProcess) {
  const auto failure = inChild([&](auto) {
    ItemStore child(directory());
    for (Rid rid = 2; rid < 102; ++rid) child.save(item(rid));
    ItemStore::Transaction committed(child);
    child.remove(2);
    child.save(item(200));
    committed.commit();
    ItemStore::Transaction open(child);
    child.remove(3);
    child.save(item(300));
    // Ended here by the caller.
    ::_exit(0);
  });
  ASSERT_EQ(failure, "");
  const auto found = rows();
  EXPECT_EQ(found.size(), 100u);
  EXPECT_FALSE(found.contains(2));
  EXPECT_TRUE(found.contains(3));
  EXPECT_TRUE(found.contains(200));
  EXPECT_FALSE(found.contains(300));
}

TEST_F(ItemStoreDamageTest, NumbersNeverRepeatAfterAnAbruptEnd) {
  Number last = 1;
  for (const int count : {1, 5, 70'000, 1, 200'000}) {
    const auto reported = inChild([&](auto report) {
      ItemStore child(directory());
      Number number = 0;
      for (int i = 0; i < count; ++i) number = child.nextNumber();
      report(std::to_string(number));
    });
    ASSERT_EQ(reported.find_first_not_of("0123456789"), std::string::npos) << reported;
    const auto number = std::stoull(reported);
    EXPECT_GE(number, last + static_cast<Number>(count));
    last = number;
  }
  EXPECT_GT(store().nextNumber(), last);
}

TEST_F(ItemStoreDamageTest, NumbersOfAnUndoneTransactionDoNotRepeatAfterAnAbruptEnd) {
  const auto reported = inChild([&](auto report) {
    ItemStore child(directory());
    Number number = 0;
    {
      ItemStore::Transaction undone(child);
      for (int i = 0; i < 300'000; ++i) number = child.nextNumber();
    }
    report(std::to_string(number));
  });
  ASSERT_EQ(reported.find_first_not_of("0123456789"), std::string::npos) << reported;
  EXPECT_GT(store().nextNumber(), std::stoull(reported));
}

TEST_F(ItemStoreDamageTest, ACopyOfTheFilesHoldsWhatWasCommittedBefore) {
  for (Rid rid = 2; rid < 50; ++rid) store().save(item(rid));
  ItemStore::Transaction open(store());
  store().save(item(1000));
  ItemStore copy(copyFiles());
  EXPECT_EQ(rowsOf(copy).size(), 48u);
}

TEST_F(ItemStoreDamageTest, ATornLogLosesOnlyTheLastCommits) {
  // One commit for each row, in order, so that what is there must be a beginning of them.
  for (Rid rid = 2; rid < 42; ++rid) store().save(item(rid));
  const auto whole = fs::file_size(logFile());
  std::size_t most = 0;
  std::size_t least = 100;
  for (std::uintmax_t length = whole; length > whole / 2; length -= 1111) {
    const auto directory = copyFiles();
    fs::resize_file(directory + "/replica.db-wal", length);
    ItemStore torn(directory);
    const auto found = rowsOf(torn);
    for (Rid rid = 2; rid < 2 + found.size(); ++rid) ASSERT_TRUE(found.contains(rid)) << length;
    EXPECT_LE(found.size(), least) << length;
    least = found.size();
    most = std::max(most, found.size());
  }
  EXPECT_EQ(most, 40u);
  EXPECT_LT(least, 30u);
}

TEST_F(ItemStoreDamageTest, AnInterruptedBeginningIsBegunAnew) {
  store();
  const auto whole = fs::file_size(logFile());
  for (std::uintmax_t length = 0; length <= whole; length += 500) {
    const auto directory = copyFiles();
    fs::resize_file(directory + "/replica.db-wal", length);
    ItemStore torn(directory);
    EXPECT_THAT(rowsOf(torn), IsEmpty()) << length;
    EXPECT_GE(torn.nextNumber(), 2u) << length;
    torn.save(item(2));
  }
}

TEST_F(ItemStoreDamageTest, ASpoiltEndOfTheLogIsNotTakenForACommit) {
  for (Rid rid = 2; rid < 42; ++rid) store().save(item(rid));
  const auto directory = copyFiles();
  const auto log = directory + "/replica.db-wal";
  overwrite(log, static_cast<off_t>(fs::file_size(log)) - 100, "spoilt");
  ItemStore spoilt(directory);
  EXPECT_EQ(rowsOf(spoilt).size(), 39u);
}

TEST_F(ItemStoreDamageTest, ADamagedFileIsRefusedByName) {
  for (Rid rid = 2; rid < 2000; ++rid) store().save(item(rid));
  close();
  const auto size = static_cast<off_t>(fs::file_size(file()));
  for (const off_t at : {off_t{0}, off_t{100}, size / 2, size - 4096}) {
    const auto directory = copyFiles();
    overwrite(directory + "/replica.db", at, std::string(64, '\xEE'));
    EXPECT_EQ(errorOf([&] { ItemStore damaged(directory); }), EIO) << at;
  }
  EXPECT_EQ(rows().size(), 1998u);
}

TEST_F(ItemStoreDamageTest, AFileThatIsCutOffIsRefused) {
  for (Rid rid = 2; rid < 2000; ++rid) store().save(item(rid));
  close();
  fs::resize_file(file(), fs::file_size(file()) / 2);
  EXPECT_EQ(errorOf([&] { store(); }), EIO);
}

TEST_F(ItemStoreDamageTest, AFileOfAnotherKindIsRefusedAndKept) {
  std::ofstream(file()) << std::string(10'000, 'x');
  EXPECT_EQ(errorOf([&] { store(); }), EIO);
  EXPECT_EQ(fs::file_size(file()), 10'000u);
}

TEST_F(ItemStoreDamageTest, ADatabaseOfAnotherProgramIsRefused) {
  Database(file()).execute("CREATE TABLE theirs(a)");
  EXPECT_EQ(errorOf([&] { store(); }), EIO);
}

TEST_F(ItemStoreDamageTest, AnEmptyFileBecomesADatabase) {
  std::ofstream(file()) << "";
  store().save(item(2));
  reopen();
  EXPECT_THAT(names(), ElementsAre("item 2"));
}

TEST_F(ItemStoreDamageTest, ADatabaseOfALaterVersionIsRefusedAndKept) {
  store().save(item(2));
  alter("PRAGMA user_version=5");
  EXPECT_EQ(errorOf([&] { store(); }), ENOTSUP);
  alter("PRAGMA user_version=4");
  EXPECT_THAT(names(), ElementsAre("item 2"));
}

TEST_F(ItemStoreDamageTest, ADatabaseOfAnEarlierVersionIsBroughtUpToDate) {
  auto earlier = item(2);
  earlier.modified = 17;
  earlier.changed = 18;
  store().save(earlier);
  alter(
      "DROP TABLE history; ALTER TABLE items DROP COLUMN accessed;"
      "ALTER TABLE items DROP COLUMN changed;"
      "ALTER TABLE items DROP COLUMN send_after; PRAGMA user_version=1");
  EXPECT_THAT(names(), ElementsAre("item 2"));
  EXPECT_EQ(rows().at(2).changed, 17);
  auto later = item(3);
  later.after = 2;
  store().save(later);
  reopen();
  EXPECT_THAT(names(), testing::UnorderedElementsAre("item 2", "item 3"));
}

TEST_F(ItemStoreDamageTest, ASymbolicLinkInPlaceOfTheDatabaseIsRefused) {
  const auto victim = directory() + "/victim";
  std::ofstream(victim) << "";
  fs::create_symlink(victim, file());
  EXPECT_EQ(errorOf([&] { store(); }), EINVAL);
  EXPECT_EQ(fs::file_size(victim), 0u);
}

TEST_F(ItemStoreDamageTest, TakesAwayRightsThatOthersHaveOnTheDatabase) {
  store();
  close();
  fs::permissions(file(), fs::perms(0644));
  store();
  EXPECT_EQ(fs::status(file()).permissions(), fs::perms(0600));
  EXPECT_EQ(fs::status(logFile()).permissions(), fs::perms(0600));
}

TEST_F(ItemStoreDamageTest, RowsWithoutSenseAreLeftOutAndCounted) {
  for (Rid rid = 2; rid < 14; ++rid) {
    auto record = item(rid);
    record.failure = SyncFailure{};
    record.base = Base{};
    record.attributes = replica::AttributeMap{{"user.a", "b"}};
    store().save(record);
  }
  alter(
      "UPDATE items SET size=-1 WHERE rid=3;"
      "UPDATE items SET kind=2 WHERE rid=4;"
      "UPDATE items SET name=x'612F62' WHERE rid=5;"
      "UPDATE items SET name=x'' WHERE rid=6;"
      "UPDATE items SET failure_class=9 WHERE rid=7;"
      "UPDATE items SET base_size=-5 WHERE rid=8;"
      "UPDATE items SET attributes=x'FFFFFFFF00' WHERE rid=9;"
      "UPDATE items SET mode=-1 WHERE rid=10;"
      "UPDATE items SET base_name=NULL WHERE rid=11;"
      "UPDATE items SET pinned=2 WHERE rid=12;"
      "UPDATE items SET rid=-13 WHERE rid=13;");
  std::vector<Rid> found;
  const auto leftOut = store().load([&](const ItemRecord& record) { found.push_back(record.rid); });
  EXPECT_EQ(leftOut, 11u);
  EXPECT_THAT(found, ElementsAre(2u));
}

TEST_F(ItemStoreDamageTest, RowsWithDatesThatAreNoneAreLeftOut) {
  const char* const columns[] = {"base_date", "failure_since", "failure_next",
                                 "sent_at",   "last_use",      "listed_at"};
  std::string changes;
  for (Rid rid = 2; rid < 14; ++rid) {
    auto record = item(rid);
    record.failure = SyncFailure{};
    record.base = Base{};
    record.sent = SentRecord{};
    store().save(record);
    changes += "UPDATE items SET " + std::string(columns[(rid - 2) / 2]) +
               (rid % 2 == 0 ? "=9223372036854775807" : "=-9223372036854775808") +
               " WHERE rid=" + std::to_string(rid) + ";";
  }
  store().save(item(14));
  alter(changes.c_str());
  std::vector<Rid> found;
  const auto leftOut = store().load([&](const ItemRecord& record) { found.push_back(record.rid); });
  EXPECT_EQ(leftOut, 12u);
  EXPECT_THAT(found, ElementsAre(14u));
}

TEST_F(ItemStoreDamageTest, SizesThatNoDiskHoldsAreTheLargest) {
  auto record = item(2);
  record.base = Base{};
  record.sent = SentRecord{};
  store().save(record);
  alter("UPDATE items SET base_size=9223372036854775807, sent_size=9223372036854775807");
  const auto found = rows().at(2);
  EXPECT_EQ(found.base->size, kLargestSize);
  EXPECT_EQ(found.sent->size, kLargestSize);
}

}  // namespace
}  // namespace kestrowan::replica
