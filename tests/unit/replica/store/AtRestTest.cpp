#include "replica/store/AtRest.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "ItemStoreSupport.h"
#include "replica/store/Database.h"

namespace kestrowan::replica {
namespace {

namespace fs = std::filesystem;

class AtRestTest : public testing::Test {
 protected:
  static ItemRecord confirmed(Rid rid) {
    auto record = item(rid);
    record.base = Base{.identifier = "/x", .parent = kRootRid, .name = record.name};
    return record;
  }
  /// Rows of every kind: folder 2, and in it and beside it what is to be sent and what is not.
  void fill() const {
    ItemStore store(directory_.path());
    auto root = item(kRootRid);
    root.kind = ItemKind::folder;
    store.save(root);
    auto folder = confirmed(2);
    folder.kind = ItemKind::folder;
    folder.listedAt = 5000;
    store.save(folder);
    store.save(confirmed(3));
    auto changed = confirmed(4);
    changed.contentsChanged = true;
    changed.content = 9;
    store.save(changed);
    auto moved = confirmed(5);
    moved.parent = 2;
    store.save(moved);
    auto removed = confirmed(6);
    removed.removed = true;
    store.save(removed);
    auto made = item(7);
    made.name = "a (conflict 2026-01-31 1200 desk).txt";
    made.failure = SyncFailure{.failureClass = FailureClass::refused, .text = "no"};
    store.save(made);
    auto stays = item(8);
    stays.localOnly = true;
    store.save(stays);
    auto sent = confirmed(9);
    sent.sent = SentRecord{.parent = kRootRid, .name = "x"};
    store.save(sent);
  }
  std::string bytesOf(const std::string& name) const {
    std::ostringstream text;
    text << std::ifstream(directory_.path() + name, std::ios::binary).rdbuf();
    return text.str();
  }
  void alter(const char* statements) const {
    Database(directory_.path() + "/replica.db").execute(statements);
  }
  void expectAll() const {
    const auto unsent = unsentIn(directory_.path(), 100);
    EXPECT_EQ(unsent.changes, 5);
    EXPECT_EQ(unsent.refused, 1);
    EXPECT_EQ(unsent.conflicts, 1);
    EXPECT_EQ(unsent.localOnly, 1);
    EXPECT_EQ(unsent.paths,
              (std::vector<std::string>{"/item 4", "/item 2/item 5", "/item 6",
                                        "/a (conflict 2026-01-31 1200 desk).txt", "/item 9"}));
    EXPECT_FALSE(unsent.isNothing());
  }

  const test::TemporaryDirectory directory_;
};

TEST_F(AtRestTest, WhatWasNotSentIsCountedAndNamed) {
  fill();
  expectAll();
  EXPECT_EQ(unsentIn(directory_.path(), 2).paths.size(), 2U);
}

TEST_F(AtRestTest, LookingChangesNothing) {
  fill();
  const auto before = bytesOf("/replica.db");
  expectAll();
  EXPECT_EQ(bytesOf("/replica.db"), before);
  EXPECT_FALSE(fs::exists(directory_.path() + "/replica.db-wal"));
}

TEST_F(AtRestTest, WhatAProcessThatDiedLeftInTheLogIsSeenAndStaysThere) {
  EXPECT_EQ(inChild([this](const auto&) {
              ItemStore store(directory_.path());
              store.save(item(2));
              ::_exit(0);
            }),
            "");
  const auto file = bytesOf("/replica.db");
  const auto log = bytesOf("/replica.db-wal");
  ASSERT_FALSE(log.empty());
  EXPECT_EQ(unsentIn(directory_.path(), 5).changes, 1);
  EXPECT_EQ(bytesOf("/replica.db"), file);
  EXPECT_EQ(bytesOf("/replica.db-wal"), log);
}

TEST_F(AtRestTest, ADatabaseOfAnEarlierVersionIsUnderstoodAndLeftAsItIs) {
  fill();
  alter(
      "DROP TABLE history; ALTER TABLE items DROP COLUMN accessed;"
      "ALTER TABLE items DROP COLUMN changed;"
      "ALTER TABLE items DROP COLUMN send_after; PRAGMA user_version=1");
  const auto before = bytesOf("/replica.db");
  expectAll();
  EXPECT_EQ(bytesOf("/replica.db"), before);
}

TEST_F(AtRestTest, WhereNothingIsNothingWaits) {
  EXPECT_TRUE(unsentIn(directory_.path(), 5).isNothing());
  EXPECT_TRUE(fs::is_empty(directory_.path()));
  std::ofstream(directory_.path() + "/replica.db").flush();
  EXPECT_TRUE(unsentIn(directory_.path(), 5).isNothing());
  fs::create_directory(directory_.path() + "/recovery");
  std::ofstream(directory_.path() + "/recovery/7") << "precious";
  const auto unsent = unsentIn(directory_.path(), 5);
  EXPECT_EQ(unsent.inHistory, 1);
  EXPECT_FALSE(unsent.isNothing());
}

TEST_F(AtRestTest, WhatIsInTheHistoryIsKeptNowhereElse) {
  {
    ItemStore store(directory_.path());
    store.keep({.content = 7});
  }
  const auto unsent = unsentIn(directory_.path(), 5);
  EXPECT_EQ(unsent.inHistory, 1);
  EXPECT_FALSE(unsent.isNothing());
}

TEST_F(AtRestTest, WhatIsNoDatabaseIsAnError) {
  std::ofstream(directory_.path() + "/replica.db") << std::string(5000, 'x');
  EXPECT_EQ(errorOf([this] { unsentIn(directory_.path(), 5); }), EIO);
}

TEST_F(AtRestTest, FoldersInACircleHaveSomePath) {
  fill();
  alter("UPDATE items SET parent=5 WHERE rid=2; UPDATE items SET parent=2 WHERE rid=5");
  EXPECT_EQ(unsentIn(directory_.path(), 100).paths.size(), 5U + 1U);
}

TEST_F(AtRestTest, ListingsCanBeMadeOldAndNothingElseChanges) {
  fill();
  const auto rows = [this] {
    ItemStore store(directory_.path());
    return rowsOf(store);
  };
  auto before = rows();
  ageListings(directory_.path());
  before[2].listedAt = 1;
  EXPECT_EQ(rows(), before);
}

TEST_F(AtRestTest, WithoutADatabaseNoneIsMade) {
  ageListings(directory_.path());
  EXPECT_TRUE(fs::is_empty(directory_.path()));
}

}  // namespace
}  // namespace kestrowan::replica
