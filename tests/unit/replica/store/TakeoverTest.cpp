#include "replica/store/Takeover.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "EarlierStore.h"
#include "StoreSupport.h"
#include "replica/model/Edit.h"
#include "replica/model/Restorer.h"
#include "replica/model/View.h"
#include "replica/store/TreeJournal.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::replica::store {
namespace {

using model::Content;
using model::Edit;
using model::Here;
using model::Intent;
using model::ItemNumber;
using model::KeptItem;
using model::Kind;
using model::Path;
using model::There;
using model::Time;
using model::Tree;
using model::Verb;
using model::View;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr Time kNow{milliseconds(1'700'000'000'000)};
constexpr Rid kRid = 9;
constexpr Number kContent = 20;
constexpr Number kSentContent = 21;

Base base(const std::string& name, ItemKind kind) {
  Base known;
  known.identifier = "/" + name;
  known.parent = kRootRid;
  known.name = name;
  known.version = kind == ItemKind::file ? "v" : "";
  known.versionKnown = true;
  known.size = kind == ItemKind::file ? 4 : 0;
  known.date = 1'600'000'000;
  known.capabilities = 63;
  return known;
}

/// A downloaded file in step, or a folder.
ItemRecord record(ItemKind kind = ItemKind::file) {
  ItemRecord known;
  known.rid = kRid;
  known.parent = kRootRid;
  known.name = "a";
  known.kind = kind;
  known.base = base("a", kind);
  known.size = known.base->size;
  known.modified = known.changed = *known.base->date * 1'000'000'000;
  if (kind == ItemKind::file) known.content = kContent;
  return known;
}

SentRecord sent(const std::string& name, ContentNumber content) {
  return {content, 4, 1'650'000'000, kRootRid, name};
}

/// As a run finds them when all is in the root.
Surroundings around(const ItemRecord& known) {
  Surroundings surroundings;
  surroundings.now = kNow;
  surroundings.isIdentifierDerived = true;
  if (known.base) surroundings.base = Path().child(known.base->name);
  if (known.sent) surroundings.sent = Path().child(known.sent->name);
  return surroundings;
}

TakenOver taken(const ItemRecord& known) {
  return takenOver(known, around(known));
}

There thereOf(const std::string& name, Content content) {
  There there{{ItemNumber::root, name}, {"v"}, content};
  there.size = 4;
  there.date = model::Date(seconds(1'600'000'000));
  there.capabilities = 63;
  return there;
}

TEST(TakeoverTest, TakesAFileInStepForWhatItIs) {
  const TakenOver result = taken(record());
  EXPECT_EQ(result.item.number, ItemNumber{kRid});
  EXPECT_EQ(result.item.here, (Here{{ItemNumber::root, "a"}, Content{kContent}}));
  EXPECT_EQ(result.item.there, thereOf("a", Content{kContent}));
  EXPECT_EQ(result.item.agreed, result.item.there);
  EXPECT_EQ(result.item.attributes, model::Attributes{}) << "all follows from the base";
  EXPECT_TRUE(result.intents.empty());
  EXPECT_EQ(result.orphan, Content::none);
}

TEST(TakeoverTest, KnowsNoBytesOfTheBaseOfAChangedFile) {
  ItemRecord changed = record();
  changed.contentsChanged = true;
  changed.size = 9;
  changed.modified = 5;
  const TakenOver result = taken(changed);
  EXPECT_EQ(result.item.here->content, Content{kContent});
  EXPECT_EQ(result.item.there, thereOf("a", Content::none));
  EXPECT_EQ(result.item.agreed, result.item.there);
  EXPECT_EQ(result.item.attributes.size, 9);
  EXPECT_EQ(result.item.attributes.modified->time_since_epoch().count(), 5);
}

TEST(TakeoverTest, KeepsARemovedItemByWhatTheProviderHas) {
  ItemRecord removed = record();
  removed.removed = true;
  removed.after = 7;
  const TakenOver result = taken(removed);
  EXPECT_FALSE(result.item.here);
  EXPECT_EQ(result.item.there, thereOf("a", Content::none));
  EXPECT_EQ(result.item.agreed, result.item.there);
  EXPECT_EQ(result.item.after, std::vector{ItemNumber{7}});
  EXPECT_EQ(result.orphan, Content{kContent});
}

TEST(TakeoverTest, KeepsWhatIsOnlyHere) {
  ItemRecord made = record();
  made.base.reset();
  made.contentsChanged = true;
  const TakenOver result = taken(made);
  EXPECT_TRUE(result.item.here);
  EXPECT_FALSE(result.item.there || result.item.agreed);
}

TEST(TakeoverTest, TakesARequestOfANewFileForAPutThatMayStillLand) {
  ItemRecord made = record();
  made.base.reset();
  made.sent = sent("before", kSentContent);
  const TakenOver result = taken(made);
  ASSERT_EQ(result.intents.size(), 1U);
  const Intent& put = result.intents[0];
  EXPECT_EQ(put.verb, Verb::put);
  EXPECT_EQ(put.item, ItemNumber{kRid});
  EXPECT_EQ(put.target, Path().child("before"));
  EXPECT_FALSE(put.source);
  EXPECT_EQ(put.content, Content{kSentContent});
  EXPECT_EQ(put.ended, kNow);
  EXPECT_EQ(put.until, kNow + std::chrono::minutes(10));
  EXPECT_FALSE(put.looked || put.over);
}

TEST(TakeoverTest, TakesARequestOfANewFolderForOneThatMakesIt) {
  ItemRecord made = record(ItemKind::folder);
  made.base.reset();
  made.sent = sent("a", 0);
  const TakenOver result = taken(made);
  ASSERT_EQ(result.intents.size(), 1U);
  EXPECT_EQ(result.intents[0].verb, Verb::makeFolder);
  EXPECT_EQ(result.intents[0].target, Path().child("a"));
}

TEST(TakeoverTest, TakesAMoveWithContentsForTwoRequests) {
  ItemRecord moved = record();
  moved.name = "b";
  moved.contentsChanged = true;
  moved.sent = sent("b", kContent);
  const TakenOver result = taken(moved);
  ASSERT_EQ(result.intents.size(), 2U);
  EXPECT_EQ(result.intents[0].verb, Verb::move);
  EXPECT_EQ(result.intents[0].source, Path().child("a"));
  EXPECT_EQ(result.intents[0].target, Path().child("b"));
  EXPECT_EQ(result.intents[1].verb, Verb::put);
  EXPECT_EQ(result.intents[1].target, Path().child("b"));
  EXPECT_EQ(result.item.here->place.name, "b");
  EXPECT_EQ(result.item.there->place.name, "a");
}

TEST(TakeoverTest, KeepsOfWhatIsNowhereTheRequestThatMayHaveMadeIt) {
  ItemRecord removed = record();
  removed.base.reset();
  removed.removed = true;
  EXPECT_FALSE(isAnywhere(removed));
  removed.sent = sent("a", kContent);
  EXPECT_TRUE(isAnywhere(removed));
  const TakenOver result = taken(removed);
  EXPECT_FALSE(result.item.here || result.item.there || result.item.agreed);
  ASSERT_EQ(result.intents.size(), 1U);
  EXPECT_EQ(result.intents[0].verb, Verb::put);
}

TEST(TakeoverTest, ForgetsARequestIntoAFolderThatTheProviderHasNot) {
  ItemRecord made = record();
  made.base.reset();
  made.sent = sent("a", kContent);
  Surroundings surroundings = around(made);
  surroundings.sent.reset();
  EXPECT_TRUE(takenOver(made, surroundings).intents.empty());
}

TEST(TakeoverTest, KeepsAnIdentifierThatDoesNotFollowFromThePlace) {
  Surroundings surroundings = around(record());
  EXPECT_TRUE(takenOver(record(), surroundings).item.there->identifier.empty());
  surroundings.isIdentifierDerived = false;
  EXPECT_EQ(takenOver(record(), surroundings).item.there->identifier, "/a");
}

TEST(TakeoverTest, TakesEveryAttribute) {
  ItemRecord known = record(ItemKind::folder);
  known.mode = 0700;
  known.attributes = AttributeMap{{"user.a", "1"}};
  known.pinned = true;
  known.lastUse = 12;
  known.changed = 13;
  known.accessed = 14;
  known.modified = 15;
  known.listedAt = 16;
  known.base->date.reset();
  known.base->versionKnown = false;
  SyncFailure failure;
  failure.failureClass = FailureClass::slow;
  failure.domain = "d";
  failure.code = -5;
  failure.text = "t";
  failure.since = 17;
  failure.next = 18;
  failure.tries = 19;
  known.failure = failure;
  const KeptItem result = taken(known).item;
  const auto& attributes = result.attributes;
  EXPECT_EQ(attributes.mode, 0700);
  EXPECT_EQ(attributes.user->at("user.a"), "1");
  EXPECT_TRUE(attributes.pinned);
  EXPECT_FALSE(attributes.localOnly);
  EXPECT_EQ(*attributes.lastUse, Time(seconds(12)));
  EXPECT_EQ(attributes.changed->time_since_epoch().count(), 13);
  EXPECT_EQ(attributes.accessed->time_since_epoch().count(), 14);
  EXPECT_EQ(attributes.modified->time_since_epoch().count(), 15);
  EXPECT_EQ(*attributes.listedAt, Time(milliseconds(16)));
  EXPECT_FALSE(result.there->date);
  EXPECT_FALSE(result.there->isVersionKnown);
  ASSERT_TRUE(attributes.failure);
  EXPECT_EQ(attributes.failure->failureClass, model::FailureClass::slow);
  EXPECT_EQ(attributes.failure->domain, "d");
  EXPECT_EQ(attributes.failure->code, -5);
  EXPECT_EQ(attributes.failure->text, "t");
  EXPECT_EQ(attributes.failure->since, Time(seconds(17)));
  EXPECT_EQ(attributes.failure->next, Time(seconds(18)));
  EXPECT_EQ(attributes.failure->tries, 19U);
}

/// Every record that the flags make, of those that the versions before could write.
std::vector<ItemRecord> allRecords() {
  std::vector<ItemRecord> result;
  for (unsigned bits = 0; bits < 1U << 8; ++bits) {
    const auto has = [&](unsigned bit) { return (bits >> bit & 1) != 0; };
    ItemRecord each = record(has(0) ? ItemKind::folder : ItemKind::file);
    if (has(1)) each.base.reset();
    each.removed = has(2);
    if (has(3)) each.name = "moved";
    each.contentsChanged = has(4);
    if (has(5)) each.content = 0;
    each.localOnly = has(6);
    each.after = has(7) ? 7 : 0;
    const bool isFolder = each.kind == ItemKind::folder;
    const bool hasNoBytes = each.content == 0 && (each.contentsChanged || !each.base);
    if (isFolder && (each.contentsChanged || each.localOnly)) continue;
    if (!isFolder && hasNoBytes) continue;
    if (each.localOnly && each.base) continue;
    for (const char* name : {"", "a", "moved", "elsewhere"}) {
      for (const Number content : {Number{0}, kContent, kSentContent}) {
        each.sent.reset();
        if (*name) each.sent = sent(name, isFolder ? 0 : content);
        result.push_back(each);
      }
    }
  }
  return result;
}

/// What the versions before were to do about a record, except for its request without an answer.
bool wasToBeSent(const ItemRecord& known) {
  if (known.removed) return known.base.has_value();
  if (known.localOnly) return false;
  if (!known.base) return true;
  const bool isMoved = known.base->parent != known.parent || known.base->name != known.name;
  return isMoved || known.contentsChanged;
}

TEST(TakeoverTest, HasToBeSentWhatHadToBeSentAndLosesNoContents) {
  for (const ItemRecord& known : allRecords()) {
    const TakenOver result = taken(known);
    const auto& made = result.item;
    EXPECT_EQ(made.here.has_value(), !known.removed);
    EXPECT_EQ(made.there.has_value(), known.base.has_value());
    EXPECT_EQ(made.agreed, made.there) << "what the provider showed was all merged";
    const Content content{known.kind == ItemKind::file ? known.content : 0};
    EXPECT_EQ(made.here ? made.here->content : result.orphan, content);
    const bool mayHaveLanded = known.sent && (known.sent->content != 0 || !known.base);
    if (mayHaveLanded && known.kind == ItemKind::file && known.sent->content != 0) {
      EXPECT_FALSE(result.intents.empty());
    }
    EXPECT_TRUE(known.sent || result.intents.empty());
    if (!isAnywhere(known) || (known.removed && !known.base)) continue;
    model::Restorer restorer;
    restorer.add(made);
    const auto state = restorer.finish([](const auto&, const auto&) { return true; });
    ASSERT_EQ(restorer.leftOut().size(), 0U);
    EXPECT_EQ(state.pending().contains(ItemNumber{kRid}), wasToBeSent(known));
    EXPECT_TRUE(state.unmerged().empty());
  }
}

/// A database of the versions before, opened as a tree.
class TakenDatabaseTest : public testing::Test {
 protected:
  EarlierStore& store() {
    if (!store_) store_.emplace(directory());
    return *store_;
  }
  /// Closes all, and opens it as a tree, with these statements between.
  void open(const char* statements = nullptr) {
    close();
    if (statements) Database(file()).execute(statements);
    journal_.emplace(directory(), remote::IdentifierForm::paths(), kNow);
    tree_.emplace(*journal_, journal_->load());
  }
  void close() {
    tree_.reset();
    journal_.reset();
    store_.reset();
  }
  const std::string& directory() const { return directory_.path(); }
  std::string file() const { return directory() + "/replica.db"; }
  std::int64_t errorOfOpening() {
    return errorOf([&] { TreeJournal(directory(), remote::IdentifierForm::paths(), kNow); });
  }

  ItemRecord child(Rid rid, Rid folder, const std::string& folderIdentifier,
                   const std::string& name, ItemKind kind) {
    ItemRecord known = record(kind);
    known.rid = rid;
    known.parent = known.base->parent = folder;
    known.name = known.base->name = name;
    known.base->identifier = folderIdentifier + "/" + name;
    known.content = 0;
    return known;
  }
  void saveRoot() {
    ItemRecord root;
    root.rid = root.parent = kRootRid;
    root.kind = ItemKind::folder;
    root.base = Base{.identifier = std::string(NSFileProviderRootContainerItemIdentifier),
                     .parent = kRootRid,
                     .capabilities = 63};
    root.listedAt = 99;
    store().save(root);
  }

  const test::TemporaryDirectory directory_;
  std::optional<EarlierStore> store_;
  std::optional<TreeJournal> journal_;
  std::optional<Tree> tree_;
};

TEST_F(TakenDatabaseTest, HasItemsRequestsAndNumbers) {
  saveRoot();
  store().setNext(51);
  store().save(child(2, kRootRid, "", "d", ItemKind::folder));
  ItemRecord file = child(3, 2, "/d", "f", ItemKind::file);
  file.name = "g";
  file.content = kContent;
  file.contentsChanged = true;
  file.sent = SentRecord{kContent, 4, 1'650'000'000, 2, "g"};
  store().save(file);
  ItemRecord removed = child(4, 2, "/d", "old", ItemKind::file);
  removed.removed = true;
  removed.content = kSentContent;
  removed.after = 3;
  store().save(removed);
  open();
  EXPECT_EQ(journal_->leftOut(), 0U);
  EXPECT_GE(journal_->firstFreeContent(), Content{51});
  ASSERT_EQ(journal_->orphans().size(), 1U);
  EXPECT_EQ(journal_->orphans()[0].content, Content{kSentContent});
  EXPECT_EQ(journal_->orphans()[0].name, "old");
  journal_->forgetOrphans();
  open();
  EXPECT_TRUE(journal_->orphans().empty());
  Edit edit(*tree_);
  EXPECT_EQ(edit->count(), 4U);
  EXPECT_EQ(edit->root().attributes().listedAt, model::OptionalTime<Time>(Time(milliseconds(99))));
  EXPECT_EQ(edit->root().there()->capabilities, 63U);
  EXPECT_EQ(edit->identifier(edit->item(ItemNumber{3})), "/d/f");
  EXPECT_TRUE(edit->item(ItemNumber{3}).there()->identifier.empty());
  EXPECT_EQ(edit->hereAt(ItemNumber{2}, "g")->number(), ItemNumber{3});
  EXPECT_EQ(edit->item(ItemNumber{4}).after(), std::vector{ItemNumber{3}});
  EXPECT_EQ(edit->pending(), (std::set{ItemNumber{3}, ItemNumber{4}}));
  const auto intents = edit->intents().all();
  ASSERT_EQ(intents.size(), 2U);
  EXPECT_EQ(intents[0].source, Path().child("d").child("f"));
  EXPECT_EQ(intents[1].target, Path().child("d").child("g"));
  EXPECT_GE(edit.make(Kind::file), ItemNumber{51});
  EXPECT_GT(edit.add({}), intents[1].number);
}

TEST_F(TakenDatabaseTest, IsNoLongerOneOfTheVersionsBefore) {
  saveRoot();
  open();
  close();
  EXPECT_EQ(errorOf([&] { EarlierStore{directory()}; }), ENOTSUP);
  open();
  EXPECT_EQ(View(*tree_)->count(), 1U);
}

TEST_F(TakenDatabaseTest, StaysOneOfTheVersionsBeforeWhenItCannotBeTakenOver) {
  saveRoot();
  close();
  Database(file()).execute("CREATE TABLE tree(a); ");
  EXPECT_EQ(errorOfOpening(), EIO);
  Database(file()).execute("DROP TABLE tree;");
  EXPECT_EQ(store().rows().size(), 1U);
}

TEST_F(TakenDatabaseTest, RemembersRowsThatMadeNoSense) {
  saveRoot();
  store().save(child(2, kRootRid, "", "d", ItemKind::folder));
  open("UPDATE items SET kind=7 WHERE rid=2");
  EXPECT_EQ(journal_->leftOut(), 1U);
  open();
  EXPECT_EQ(journal_->leftOut(), 1U) << "until their contents are safe";
  journal_->forgetLeftOut();
  open();
  EXPECT_EQ(journal_->leftOut(), 0U);
}

TEST_F(TakenDatabaseTest, LeavesOutRowsThatMakeNoSense) {
  saveRoot();
  for (Rid rid = 2; rid < 20; ++rid) {
    ItemRecord known = child(rid, kRootRid, "", "f" + std::to_string(rid), ItemKind::file);
    known.failure = SyncFailure{};
    known.attributes = AttributeMap{{"user.a", "b"}};
    known.sent = sent(known.name, kSentContent);
    store().save(known);
  }
  open(
      "UPDATE items SET size=-1 WHERE rid=3;"
      "UPDATE items SET name=x'612F62' WHERE rid=4;"
      "UPDATE items SET name=x'' WHERE rid=5;"
      "UPDATE items SET failure_class=9 WHERE rid=6;"
      "UPDATE items SET base_size=-5 WHERE rid=7;"
      "UPDATE items SET attributes=x'FFFFFFFF00' WHERE rid=8;"
      "UPDATE items SET mode=-1 WHERE rid=9;"
      "UPDATE items SET base_name=NULL WHERE rid=10;"
      "UPDATE items SET pinned=2 WHERE rid=11;"
      "UPDATE items SET rid=-13 WHERE rid=12;"
      "UPDATE items SET base_date=9223372036854775807 WHERE rid=13;"
      "UPDATE items SET failure_since=-9223372036854775808 WHERE rid=14;"
      "UPDATE items SET failure_next=9223372036854775807 WHERE rid=15;"
      "UPDATE items SET sent_at=9223372036854775807 WHERE rid=16;"
      "UPDATE items SET last_use=-9223372036854775808 WHERE rid=17;"
      "UPDATE items SET listed_at=9223372036854775807 WHERE rid=18;");
  EXPECT_EQ(journal_->leftOut(), 16U);
  EXPECT_EQ(View(*tree_)->count(), 3U);
  EXPECT_NE(View(*tree_)->find(ItemNumber{19}), nullptr);
}

TEST_F(TakenDatabaseTest, TakesSizesThatNoDiskHoldsForTheLargest) {
  saveRoot();
  store().save(child(2, kRootRid, "", "f", ItemKind::file));
  open("UPDATE items SET base_size=9223372036854775807 WHERE rid=2");
  EXPECT_EQ(View(*tree_)->item(ItemNumber{2}).there()->size, kLargestSize);
}

TEST_F(TakenDatabaseTest, MayBeOfTheFirstVersion) {
  saveRoot();
  ItemRecord earlier = child(2, kRootRid, "", "f", ItemKind::file);
  earlier.modified = 17;
  earlier.changed = 18;
  store().save(earlier);
  open(
      "DROP TABLE history; ALTER TABLE items DROP COLUMN accessed;"
      "ALTER TABLE items DROP COLUMN changed;"
      "ALTER TABLE items DROP COLUMN send_after; PRAGMA user_version=1");
  EXPECT_EQ(journal_->leftOut(), 0U);
  const View view(*tree_);
  const auto& attributes = view->item(ItemNumber{2}).attributes();
  EXPECT_EQ(attributes.modified->time_since_epoch().count(), 17);
  EXPECT_FALSE(attributes.changed) << "it was changed when its contents were";
}

TEST_F(TakenDatabaseTest, KeepsTheHistory) {
  saveRoot();
  const HistoryEntry entry{.content = 7, .path = "/a", .size = 3, .at = 100};
  store().keep(entry);
  open();
  journal_->look([&] {
    EXPECT_EQ(journal_->database().number("SELECT count(*) FROM history WHERE content=7"), 1);
  });
}

/// The versions between those that had a history and the first that has a tree were never given
/// out.
TEST_F(TakenDatabaseTest, IsRefusedWhenItIsOfAVersionBetween) {
  saveRoot();
  close();
  Database(file()).execute("PRAGMA user_version=5");
  const std::string before = bytesOf(file());
  EXPECT_EQ(errorOfOpening(), ENOTSUP);
  EXPECT_TRUE(bytesOf(file()) == before);
}

TEST_F(TakenDatabaseTest, TrustsNoIdentifierOfTheVersionsBefore) {
  saveRoot();
  ItemRecord forged = child(2, kRootRid, "", "d", ItemKind::folder);
  forged.base->identifier = "/Home";
  store().save(forged);
  store().save(child(3, 2, "/Home", "f", ItemKind::file));
  store().save(child(4, kRootRid, "", "fine", ItemKind::file));
  open();
  EXPECT_EQ(journal_->leftOut(), 2U);
  EXPECT_EQ(View(*tree_)->count(), 2U);
}

}  // namespace
}  // namespace kestrowan::replica::store
