#include "replica/store/AtRest.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <optional>

#include "EarlierStore.h"
#include "StoreSupport.h"
#include "replica/model/Edit.h"
#include "replica/model/KeptItem.h"
#include "replica/model/View.h"
#include "replica/store/Database.h"
#include "replica/store/HistoryTable.h"
#include "replica/store/TreeJournal.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::replica::store {
namespace {

namespace fs = std::filesystem;
using model::Attributes;
using model::Content;
using model::Edit;
using model::Here;
using model::ItemNumber;
using model::Kind;
using model::There;
using model::Time;
using model::Tree;
using model::View;
using std::chrono::milliseconds;

constexpr Time kNow{milliseconds(1'700'000'000'000)};

/// The version that wrote the database.
enum class Written : std::uint8_t { before, now };

class AtRestTest : public testing::Test {
 protected:
  void alter(const char* statements) const { Database(file()).execute(statements); }
  const std::string& directory() const { return directory_.path(); }
  std::string file() const { return directory() + "/replica.db"; }

 private:
  const test::TemporaryDirectory directory_;
};

/// Rows of every kind: folder 2, and in it and beside it what is to be sent and what is not.
class AtRestOfVersionTest : public AtRestTest, public testing::WithParamInterface<Written> {
 protected:
  bool isEarlier() const { return GetParam() == Written::before; }
  void fill() const { isEarlier() ? fillEarlier() : fillTree(); }
  void keepInHistory() const {
    const HistoryEntry entry{.content = 7};
    if (isEarlier()) return EarlierStore(directory()).keep(entry);
    TreeJournal journal(directory(), remote::IdentifierForm::paths(), kNow);
    journal.change([&] { HistoryTable(journal.database()).put(entry); });
  }
  void expectAll() const {
    const auto unsent = unsentIn(directory(), 100);
    EXPECT_EQ(unsent.changes, 4);
    EXPECT_EQ(unsent.refused, 1);
    EXPECT_EQ(unsent.localOnly, 1);
    EXPECT_EQ(unsent.paths,
              (std::vector<std::string>{"/item 4", "/item 2/item 5", "/item 6", "/item 7"}));
    EXPECT_FALSE(unsent.isNothing());
  }

 private:
  static ItemRecord record(Rid rid) {
    ItemRecord known;
    known.rid = rid;
    known.parent = kRootRid;
    known.name = "item " + std::to_string(rid);
    return known;
  }
  static ItemRecord confirmed(Rid rid) {
    ItemRecord known = record(rid);
    known.base = Base{.identifier = "/" + known.name, .parent = kRootRid, .name = known.name};
    return known;
  }
  void fillEarlier() const {
    EarlierStore store(directory());
    ItemRecord root = record(kRootRid);
    root.kind = ItemKind::folder;
    store.save(root);
    ItemRecord folder = confirmed(2);
    folder.kind = ItemKind::folder;
    folder.listedAt = 5000;
    store.save(folder);
    store.save(confirmed(3));
    ItemRecord changed = confirmed(4);
    changed.contentsChanged = true;
    changed.content = 9;
    store.save(changed);
    ItemRecord moved = confirmed(5);
    moved.parent = 2;
    store.save(moved);
    ItemRecord removed = confirmed(6);
    removed.removed = true;
    store.save(removed);
    ItemRecord made = record(7);
    made.failure = SyncFailure{.failureClass = FailureClass::refused, .text = "no"};
    store.save(made);
    ItemRecord stays = record(8);
    stays.localOnly = true;
    store.save(stays);
  }
  void fillTree() const {
    TreeJournal journal(directory(), remote::IdentifierForm::paths(), kNow);
    Tree tree(journal, journal.load());
    Edit edit(tree);
    for (const std::uint64_t number : {2, 3, 4, 5, 6, 7, 8}) {
      const ItemNumber made = edit.make(number == 2 ? Kind::folder : Kind::file);
      const There there{{ItemNumber::root, "item " + std::to_string(number)}, {}, Content::none};
      edit.setHere(made, Here{there.place, Content::none});
      if (number >= 7) continue;
      edit.setThere(made, there);
      edit.setAgreed(made, there);
    }
    Attributes listed;
    listed.listedAt = Time(milliseconds(5000));
    edit.setAttributes(ItemNumber{2}, listed);
    edit.setHere(ItemNumber{4}, Here{{ItemNumber::root, "item 4"}, Content{9}});
    edit.setHere(ItemNumber{5}, Here{{ItemNumber{2}, "item 5"}, Content::none});
    edit.setHere(ItemNumber{6}, {});
    Attributes refused;
    model::Failure failure;
    failure.failureClass = model::FailureClass::refused;
    refused.failure = failure;
    edit.setAttributes(ItemNumber{7}, refused);
    Attributes stays;
    stays.localOnly = true;
    edit.setAttributes(ItemNumber{8}, stays);
    edit.commit();
  }
};

INSTANTIATE_TEST_SUITE_P(Versions, AtRestOfVersionTest,
                         testing::Values(Written::before, Written::now), [](const auto& written) {
                           return written.param == Written::before ? "Before" : "Now";
                         });

TEST_P(AtRestOfVersionTest, WhatWasNotSentIsCountedAndNamed) {
  fill();
  expectAll();
  EXPECT_EQ(unsentIn(directory(), 2).paths.size(), 2U);
}

TEST_P(AtRestOfVersionTest, LookingChangesNothing) {
  fill();
  const auto before = bytesOf(file());
  expectAll();
  EXPECT_TRUE(bytesOf(file()) == before);
  EXPECT_EQ(fs::file_size(file() + "-wal"), 0U);
}

TEST_P(AtRestOfVersionTest, LookingMakesNoLogWhereThereIsNone) {
  fill();
  fs::remove(file() + "-wal");
  expectAll();
  EXPECT_FALSE(fs::exists(file() + "-wal"));
}

TEST_P(AtRestOfVersionTest, WhatAProcessThatDiedLeftInTheLogIsSeenAndStaysThere) {
  EXPECT_EQ(inChild([this](const Report&) {
              if (isEarlier()) {
                EarlierStore store(directory());
                ItemRecord root;
                root.rid = root.parent = kRootRid;
                root.kind = ItemKind::folder;
                store.save(root);
                ItemRecord made;
                made.rid = 2;
                made.parent = kRootRid;
                made.name = "a";
                store.save(made);
                ::_exit(0);
              }
              TreeJournal journal(directory(), remote::IdentifierForm::paths(), kNow);
              Tree tree(journal, journal.load());
              Edit edit(tree);
              edit.setHere(edit.make(Kind::file), Here{{ItemNumber::root, "a"}, Content{5}});
              edit.commit();
              ::_exit(0);
            }),
            "");
  const auto before = bytesOf(file());
  const auto log = bytesOf(file() + "-wal");
  ASSERT_FALSE(log.empty());
  EXPECT_EQ(unsentIn(directory(), 5).changes, 1);
  EXPECT_TRUE(bytesOf(file()) == before);
  EXPECT_TRUE(bytesOf(file() + "-wal") == log);
}

TEST_P(AtRestOfVersionTest, WhatIsInTheHistoryIsKeptNowhereElse) {
  keepInHistory();
  const auto unsent = unsentIn(directory(), 5);
  EXPECT_EQ(unsent.inHistory, 1);
  EXPECT_EQ(unsent.changes, 0);
  EXPECT_FALSE(unsent.isNothing());
}

TEST_P(AtRestOfVersionTest, ListingsCanBeMadeOldAndNothingElseChanges) {
  const auto items = [this] {
    TreeJournal journal(directory(), remote::IdentifierForm::paths(), kNow);
    Tree tree(journal, journal.load());
    std::map<ItemNumber, model::KeptItem> result;
    const View view(tree);
    view->forEach([&](const model::Item& item) { result[item.number()] = keptItem(item); });
    return result;
  };
  fill();
  ageListings(directory());
  auto aged = items();
  EXPECT_EQ(*aged.at(ItemNumber{2}).attributes.listedAt, Time());
  // The same again, without ageing.
  fs::remove(file());
  fill();
  auto expected = items();
  EXPECT_EQ(*expected.at(ItemNumber{2}).attributes.listedAt, Time(milliseconds(5000)));
  expected.at(ItemNumber{2}).attributes.listedAt = Time();
  EXPECT_EQ(aged, expected);
}

TEST_F(AtRestTest, ADatabaseOfTheFirstVersionIsUnderstoodAndLeftAsItIs) {
  {
    EarlierStore store(directory());
    for (const Rid rid : {kRootRid, Rid{2}}) {
      ItemRecord known;
      known.rid = rid;
      known.parent = kRootRid;
      known.name = "item";
      known.kind = rid == kRootRid ? ItemKind::folder : ItemKind::file;
      store.save(known);
    }
  }
  alter(
      "DROP TABLE history; ALTER TABLE items DROP COLUMN accessed;"
      "ALTER TABLE items DROP COLUMN changed;"
      "ALTER TABLE items DROP COLUMN send_after; PRAGMA user_version=1");
  const auto before = bytesOf(file());
  EXPECT_EQ(unsentIn(directory(), 5).paths, std::vector<std::string>{"/item"});
  EXPECT_TRUE(bytesOf(file()) == before);
}

TEST_F(AtRestTest, ADatabaseOfTheFirstVersionWithATreeIsUnderstoodAndLeftAsItIs) {
  {
    TreeJournal journal(directory(), remote::IdentifierForm::paths(), kNow);
    Tree tree(journal, journal.load());
    Edit edit(tree);
    const ItemNumber number = edit.make(Kind::file);
    edit.setHere(number, Here{{ItemNumber::root, "item"}, Content{9}});
    edit.commit();
  }
  alter("ALTER TABLE history DROP COLUMN allocated; PRAGMA user_version=100");
  const auto before = bytesOf(file());
  EXPECT_EQ(unsentIn(directory(), 5).paths, std::vector<std::string>{"/item"});
  EXPECT_TRUE(bytesOf(file()) == before);
}

TEST_F(AtRestTest, TheVersionFromHereOfAFileThatBothSidesChangedIsAConflict) {
  {
    TreeJournal journal(directory(), remote::IdentifierForm::paths(), kNow);
    Tree tree(journal, journal.load());
    Edit edit(tree);
    for (const char* name : {"theirs", "ours"}) {
      const ItemNumber number = edit.make(Kind::file);
      edit.setHere(number, Here{{ItemNumber::root, name}, Content{9}});
      Attributes attributes;
      attributes.conflict = model::ConflictNumber{2};
      edit.setAttributes(number, attributes);
    }
    edit.commit();
  }
  EXPECT_EQ(unsentIn(directory(), 5).conflicts, 1);
}

TEST_F(AtRestTest, ADatabaseThatIsInUseIsAnError) {
  const TreeJournal journal(directory(), remote::IdentifierForm::paths(), kNow);
  EXPECT_EQ(errorOf([this] { unsentIn(directory(), 5); }), EBUSY);
  EXPECT_EQ(errorOf([this] { ageListings(directory()); }), EBUSY);
}

TEST_F(AtRestTest, WhereNothingIsNothingWaits) {
  EXPECT_TRUE(unsentIn(directory(), 5).isNothing());
  EXPECT_TRUE(fs::is_empty(directory()));
  writeFile(file(), "");
  EXPECT_TRUE(unsentIn(directory(), 5).isNothing());
  fs::create_directory(directory() + "/recovery");
  writeFile(directory() + "/recovery/7", "precious");
  const auto unsent = unsentIn(directory(), 5);
  EXPECT_EQ(unsent.inHistory, 1);
  EXPECT_FALSE(unsent.isNothing());
}

TEST_F(AtRestTest, ContentsThatTheTakeoverLeftWithoutAnItemAreKeptNowhereElse) {
  {
    EarlierStore store(directory());
    ItemRecord root;
    root.rid = root.parent = kRootRid;
    root.kind = ItemKind::folder;
    store.save(root);
    ItemRecord removed;
    removed.rid = 2;
    removed.parent = kRootRid;
    removed.name = "a";
    removed.removed = true;
    removed.content = 9;
    store.save(removed);
  }
  EXPECT_EQ(unsentIn(directory(), 5).inHistory, 1);
}

TEST_F(AtRestTest, WhatIsNoDatabaseIsAnError) {
  writeFile(file(), std::string(5000, 'x'));
  EXPECT_EQ(errorOf([this] { unsentIn(directory(), 5); }), EIO);
  EXPECT_EQ(errorOf([this] { ageListings(directory()); }), EIO);
}

TEST_F(AtRestTest, WithoutADatabaseNoneIsMade) {
  ageListings(directory());
  EXPECT_TRUE(fs::is_empty(directory()));
}

}  // namespace
}  // namespace kestrowan::replica::store
