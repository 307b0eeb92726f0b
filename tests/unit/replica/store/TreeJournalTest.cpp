#include "replica/store/TreeJournal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "TreeFixture.h"
#include "replica/Records.h"

namespace kestrowan::replica::store {
namespace {

using model::Attributes;
using model::Content;
using model::Edit;
using model::Here;
using model::Intent;
using model::ItemNumber;
using model::Kind;
using model::Path;
using model::There;
using model::Time;
using model::Tree;
using model::Verb;
using model::View;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

class TreeJournalTest : public TreeFixture {
 protected:
  std::int64_t rowsIn(const char* table) {
    std::int64_t rows = 0;
    const std::string count = std::string("SELECT count(*) FROM ") + table;
    journal().look([&] { rows = journal().database().number(count.c_str()); });
    return rows;
  }
};

/// The history's rows cannot be written, in the middle of a transaction.
class FullTable : public LeftTaker {
 public:
  void write(const std::vector<model::Left>&) override { throw posixError(ENOSPC); }
  void confirm(bool) noexcept override {}
};

/// Everything that an item can have.
void fill(Edit& edit, ItemNumber number, ItemNumber folder) {
  edit.setHere(number, Here{{folder, "here"}, Content{70}});
  There there{{folder, "there"}, {std::string("a\0b", 3)}, Content{71}};
  there.size = 1'000'000'000'000;
  there.date = model::Date(seconds(-5));
  there.capabilities = model::keptCapabilities(~NSFileProviderItemCapabilities{0});
  edit.setThere(number, there);
  there.isVersionKnown = false;
  there.date = std::nullopt;
  there.place.name = "agreed";
  edit.setAgreed(number, there);
  edit.addAfter(number, ItemNumber{40});
  edit.addAfter(number, ItemNumber{1'000'000'007});
  Attributes attributes;
  attributes.mode = 0;
  attributes.localOnly = true;
  attributes.pinned = true;
  attributes.user = model::UserAttributes{{"user.a", std::string("\0", 1)}, {"user.b", ""}};
  attributes.size = 0;
  attributes.modified = model::FileTime(nanoseconds(-1));
  attributes.changed = model::FileTime(nanoseconds(2));
  attributes.accessed = model::FileTime(nanoseconds(3));
  attributes.lastUse = Time(milliseconds(4));
  attributes.listedAt = Time(milliseconds(5));
  attributes.missingSince = Time(milliseconds(6));
  attributes.conflict = model::ConflictNumber{7};
  model::Failure failure;
  failure.failureClass = model::FailureClass::held;
  failure.domain = "domain";
  failure.code = -1004;
  failure.text = "text";
  failure.since = Time(milliseconds(8));
  failure.next = Time(milliseconds(9));
  failure.tries = 10;
  attributes.failure = failure;
  edit.setAttributes(number, attributes);
}

TEST_F(TreeJournalTest, GivesBackWhatWasWritten) {
  const ItemNumber folder = add(Kind::folder, "d");
  const ItemNumber full = add(Kind::file, "f");
  add(Kind::file, "plain", folder);
  {
    Edit edit(tree());
    fill(edit, full, folder);
    const ItemNumber hereOnly = edit.make(Kind::file);
    edit.setHere(hereOnly, Here{{folder, "new"}, Content{72}});
    const ItemNumber thereOnly = edit.make(Kind::folder);
    edit.setThere(thereOnly, There{{ItemNumber::root, "theirs"}, {}, Content::none});
    edit.make(Kind::file);
    Attributes attributes;
    attributes.listedAt = kNow;
    edit.setAttributes(ItemNumber::root, attributes);
    edit.commit();
  }
  const auto before = items();
  EXPECT_EQ(before.size(), 7U);
  reopen();
  EXPECT_EQ(journal().leftOut(), 0U);
  EXPECT_EQ(items(), before);
  const View view(tree());
  EXPECT_TRUE(view->item(folder).agreed().isSameAs(view->item(folder).there()));
}

TEST_F(TreeJournalTest, GivesBackTheRequestsWithoutAnAnswer) {
  Intent put;
  put.target = Path().child("d").child("f");
  put.item = ItemNumber{9};
  put.content = Content{3};
  put.until = kNow;
  Intent move;
  move.verb = Verb::move;
  move.source = Path().child("a");
  move.target = Path().child("b");
  move.ended = kNow;
  move.until = kNow + seconds(1);
  move.looked = true;
  move.over = true;
  model::IntentNumber gone;
  {
    Edit edit(tree());
    edit.add(put);
    gone = edit.add(put);
    edit.add(move);
    edit.commit();
  }
  {
    Edit edit(tree());
    edit.end(gone);
    edit.commit();
  }
  const auto before = View(tree())->intents().all();
  EXPECT_EQ(before.size(), 2U);
  reopen();
  EXPECT_EQ(View(tree())->intents().all(), before);
}

TEST_F(TreeJournalTest, KeepsWhatWasCommittedThroughTheDeathOfTheProcess) {
  close();
  const auto failure = inChild([&](const auto&) {
    TreeJournal journal(directory(), remote::IdentifierForm::paths(), kNow);
    Tree tree(journal, journal.load());
    for (const char* name : {"a", "b"}) {
      Edit edit(tree);
      const ItemNumber number = edit.make(Kind::file);
      edit.setHere(number, Here{{ItemNumber::root, name}, Content{5}});
      edit.commit();
    }
    Edit open(tree);
    open.drop(ItemNumber{2});
    ::_exit(0);
  });
  ASSERT_EQ(failure, "");
  open();
  EXPECT_NE(View(tree())->hereAt(ItemNumber::root, "a"), nullptr);
  EXPECT_NE(View(tree())->hereAt(ItemNumber::root, "b"), nullptr);
  Edit edit(tree());
  EXPECT_GT(edit.make(Kind::file), ItemNumber{3}) << "what the dead process gave is never given";
  EXPECT_GT(journal().firstFreeContent(), Content{5});
}

TEST_F(TreeJournalTest, GivesNoNumberTwiceThatAnItemHadWhichIsGone) {
  const ItemNumber gone = add(Kind::file, "a");
  {
    Edit edit(tree());
    edit.drop(gone);
    edit.commit();
  }
  reopen();
  EXPECT_GT(add(Kind::file, "b"), gone);
}

TEST_F(TreeJournalTest, LeavesEverythingAsItWasWhenPartOfAnEditCannotBeWritten) {
  const ItemNumber number = add(Kind::file, "a");
  const auto before = items();
  FullTable full;
  journal().setLeftTaker(&full);
  {
    Edit edit(tree());
    edit.setHere(number, Here{{ItemNumber::root, "a"}, Content{5}});
    edit.commit();
  }
  const auto changed = items();
  {
    Edit edit(tree());
    edit.setHere(number, Here{{ItemNumber::root, "b"}, Content{6}});
    EXPECT_THROW(edit.commit(), NSError);
  }
  EXPECT_EQ(items(), changed);
  reopen();
  EXPECT_EQ(items(), changed);
  EXPECT_NE(before, changed);
}

TEST_F(TreeJournalTest, WritesOnceWhatIsTheSameHereAndThere) {
  add(Kind::file, "a");
  EXPECT_EQ(rowsIn("tree"), 1);
  EXPECT_EQ(rowsIn("tree WHERE there_name IS NULL AND agreed_as_there=1 AND agreed_folder IS NULL"
                   " AND there_identifier IS NULL"),
            1);
}

struct Damage {
  const char* what;
  const char* statements;
};

class TreeDamageTest : public TreeJournalTest, public testing::WithParamInterface<Damage> {};

/// Items 2 (a folder), 3 in it and 4 beside it; the damage is always of 3.
TEST_P(TreeDamageTest, LeavesOutTheRowAlone) {
  const ItemNumber folder = add(Kind::folder, "d");
  const ItemNumber inside = add(Kind::file, "f", folder);
  const ItemNumber beside = add(Kind::file, "g");
  ASSERT_EQ(inside, ItemNumber{3});
  reopen(GetParam().statements);
  EXPECT_EQ(journal().leftOut(), 1U) << GetParam().what;
  EXPECT_EQ(View(tree())->find(inside), nullptr) << GetParam().what;
  EXPECT_NE(View(tree())->find(folder), nullptr) << GetParam().what;
  EXPECT_NE(View(tree())->find(beside), nullptr) << GetParam().what;
  journal().forgetLeftOut();
  reopen();
  EXPECT_EQ(journal().leftOut(), 0U) << GetParam().what;
  EXPECT_GT(add(Kind::file, "new"), beside);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, TreeDamageTest,
    testing::Values(
        Damage{"kind", "UPDATE tree SET kind=2 WHERE number=3"},
        Damage{"no name", "UPDATE tree SET here_name=x'' WHERE number=3"},
        Damage{"dots", "UPDATE tree SET here_name=CAST('..' AS BLOB) WHERE number=3"},
        Damage{"slash", "UPDATE tree SET there_name=CAST('a/b' AS BLOB) WHERE number=3"},
        Damage{"zero", "UPDATE tree SET here_name=x'6100' WHERE number=3"},
        Damage{"folder below zero", "UPDATE tree SET here_folder=-1 WHERE number=3"},
        Damage{"number too high",
               "UPDATE tree SET here_content=9223372036854775807 WHERE number=3"},
        Damage{"no such folder", "UPDATE tree SET here_folder=33 WHERE number=3"},
        Damage{"no such folder there", "UPDATE tree SET there_folder=33 WHERE number=3"},
        Damage{"in a file", "UPDATE tree SET here_folder=4 WHERE number=3"},
        Damage{"in itself", "UPDATE tree SET kind=1,here_folder=3,there_folder=3 WHERE number=3"},
        Damage{"the root's identifier",
               "UPDATE tree SET there_identifier=CAST('/' AS BLOB) WHERE number=3"},
        Damage{"another's identifier",
               "UPDATE tree SET there_identifier=CAST('/Home' AS BLOB) WHERE number=3"},
        Damage{"an identifier that leads up",
               "UPDATE tree SET there_identifier=CAST('/d/../f' AS BLOB) WHERE number=3"},
        Damage{"an agreed identifier that is none",
               "UPDATE tree SET agreed_as_there=0,agreed_folder=2,agreed_name=x'66',"
               "agreed_identifier=CAST('f' AS BLOB) WHERE number=3"},
        Damage{"size", "UPDATE tree SET there_size=-1 WHERE number=3"},
        Damage{"date", "UPDATE tree SET there_date=253402300800 WHERE number=3"},
        Damage{"flag", "UPDATE tree SET agreed_as_there=2 WHERE number=3"},
        Damage{"after", "UPDATE tree SET after=x'01' WHERE number=3"},
        Damage{"mode", "UPDATE tree SET mode=4096 WHERE number=3"},
        Damage{"attributes", "UPDATE tree SET user=x'09000000' WHERE number=3"},
        Damage{"failure", "UPDATE tree SET failure_class=1 WHERE number=3"},
        Damage{"a folder with contents", "UPDATE tree SET kind=1,here_content=5 WHERE number=3"}));

TEST_F(TreeJournalTest, LeavesOutAForgedRowOfTheRoot) {
  add(Kind::file, "a");
  reopen("INSERT INTO tree(number,kind,here_folder,here_name) VALUES(1,0,0,x'')");
  EXPECT_EQ(journal().leftOut(), 1U);
  EXPECT_TRUE(View(tree())->root().isFolder());
  EXPECT_NE(View(tree())->hereAt(ItemNumber::root, "a"), nullptr);
}

TEST_F(TreeJournalTest, LeavesOutTheSecondOfTwoItemsInOnePlace) {
  add(Kind::file, "a");
  add(Kind::file, "b");
  reopen("UPDATE tree SET here_name=x'61' WHERE number=3");
  EXPECT_EQ(journal().leftOut(), 1U);
  EXPECT_EQ(View(tree())->count(), 2U);
  EXPECT_NE(View(tree())->hereAt(ItemNumber::root, "a"), nullptr);
}

TEST_F(TreeJournalTest, DoubtsListingsWhenRowsAreMissing) {
  const ItemNumber folder = add(Kind::folder, "d");
  add(Kind::file, "a");
  {
    Edit edit(tree());
    Attributes attributes;
    attributes.listedAt = kNow;
    edit.setAttributes(folder, attributes);
    edit.commit();
  }
  reopen("UPDATE tree SET kind=7 WHERE number=3");
  EXPECT_EQ(*View(tree())->item(folder).attributes().listedAt, Time());
  journal().forgetLeftOut();
  reopen();
  EXPECT_EQ(*View(tree())->item(folder).attributes().listedAt, Time());
}

TEST_F(TreeJournalTest, LeavesOutRequestsThatMakeNoSense) {
  {
    Intent put;
    put.target = Path().child("a");
    put.until = kNow;
    Edit edit(tree());
    for (int i = 0; i < 8; ++i) edit.add(put);
    edit.commit();
  }
  reopen(
      "UPDATE intents SET verb=4 WHERE number%8=1;"
      "UPDATE intents SET target=NULL WHERE number%8=2;"
      "UPDATE intents SET target=x'' WHERE number%8=3;"
      "UPDATE intents SET target=CAST('a/../b' AS BLOB) WHERE number%8=4;"
      "UPDATE intents SET source=x'61' WHERE number%8=5;"
      "UPDATE intents SET until=9223372036854775807 WHERE number%8=6;"
      "UPDATE intents SET looked=2 WHERE number%8=7;");
  EXPECT_EQ(journal().leftOut(), 7U);
  EXPECT_EQ(View(tree())->intents().all().size(), 1U);
}

TEST_F(TreeJournalTest, TakesSizesThatNoDiskHoldsForTheLargest) {
  const ItemNumber file = add(Kind::file, "a");
  reopen("UPDATE tree SET there_size=9223372036854775807,size=9223372036854775807");
  EXPECT_EQ(journal().leftOut(), 0U);
  EXPECT_EQ(View(tree())->item(file).there()->size, kLargestSize);
  EXPECT_EQ(View(tree())->item(file).attributes().size, kLargestSize);
}

TEST_F(TreeJournalTest, RefusesADatabaseOfALaterVersion) {
  close();
  Database(file()).execute("PRAGMA user_version=102");
  EXPECT_EQ(errorOf([&] { TreeJournal(directory(), remote::IdentifierForm::paths(), kNow); }),
            ENOTSUP);
}

TEST_F(TreeJournalTest, HoldsItsDatabaseAlone) {
  EXPECT_EQ(errorOf([&] { TreeJournal(directory(), remote::IdentifierForm::paths(), kNow); }),
            EBUSY);
}

}  // namespace
}  // namespace kestrowan::replica::store
