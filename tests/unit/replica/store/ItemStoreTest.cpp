#include "replica/store/ItemStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <thread>

#include "ItemStoreSupport.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::replica {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ItemStoreTest : public ItemStoreFixture {};

ItemRecord fullRecord() {
  ItemRecord record;
  record.rid = 17;
  record.parent = kRootRid;
  record.name = "na\xC3\xAFve \xFF name"s;
  record.kind = ItemKind::file;
  Base base;
  base.identifier = "/folder/\0 na\xFFme"s;
  base.parent = 4;
  base.name = "before"s;
  base.version = "\0\xFF|1|2"s;
  base.versionKnown = true;
  base.size = 123456789012;
  base.date = -1;
  base.capabilities = ~NSFileProviderItemCapabilities{0};
  record.base = base;
  record.content = 99;
  record.contentsChanged = true;
  record.size = INT64_MAX;
  record.modified = INT64_MIN;
  record.changed = INT64_MAX;
  record.accessed = INT64_MIN;
  record.mode = 0755;
  record.attributes =
      replica::AttributeMap{{"user.one", "value"}, {"user.empty", ""}, {"user.bytes", "\0\xFF\n"s}};
  record.removed = true;
  record.localOnly = true;
  record.pinned = true;
  record.lastUse = 1767225600;
  SyncFailure failure;
  failure.failureClass = FailureClass::held;
  failure.domain = "NSURLErrorDomain";
  failure.code = -1004;
  failure.text = "Could not \"connect\"";
  failure.since = 5;
  failure.next = 6;
  failure.tries = UINT32_MAX;
  record.failure = failure;
  SentRecord sent;
  sent.content = 98;
  sent.size = 7;
  sent.at = 8;
  sent.parent = 9;
  sent.name = "after\xFF"s;
  record.sent = sent;
  record.listedAt = 1767225600123;
  return record;
}

TEST_F(ItemStoreTest, BeginsEmpty) {
  EXPECT_THAT(rows(), IsEmpty());
  EXPECT_EQ(fs::status(file()).permissions(), fs::perms(0600));
  EXPECT_EQ(fs::status(logFile()).permissions(), fs::perms(0600));
}

TEST_F(ItemStoreTest, KeepsEveryField) {
  auto record = fullRecord();
  ItemRecord bare;
  bare.rid = 18;
  bare.name = "bare";
  bare.kind = ItemKind::folder;
  store().save(record);
  store().save(bare);
  reopen();
  EXPECT_EQ(rows().at(17), record);
  EXPECT_EQ(rows().at(18), bare);
}

TEST_F(ItemStoreTest, KeepsWhatIsThereButEmptyApartFromWhatIsAbsent) {
  ItemRecord record;
  record.rid = 5;
  record.name = "a";
  record.base = Base{};
  record.mode = 0;
  record.accessed = 0;
  record.failure = SyncFailure{};
  record.sent = SentRecord{};
  store().save(record);
  reopen();
  const auto loaded = rows().at(5);
  EXPECT_EQ(loaded, record);
  EXPECT_TRUE(loaded.base && !loaded.base->date && loaded.mode && loaded.accessed &&
              loaded.failure && loaded.sent);
}

TEST_F(ItemStoreTest, SavingAgainReplacesTheWholeRow) {
  auto record = fullRecord();
  store().save(record);
  record.base.reset();
  record.failure.reset();
  record.sent.reset();
  record.mode.reset();
  record.attributes.reset();
  record.name = "new";
  store().save(record);
  EXPECT_EQ(rows().size(), 1u);
  EXPECT_EQ(rows().at(17), record);
}

TEST_F(ItemStoreTest, ARemovedRowIsGone) {
  store().save(item(2));
  store().save(item(3));
  store().remove(2);
  store().remove(1234);
  reopen();
  EXPECT_THAT(names(), ElementsAre("item 3"));
}

TEST_F(ItemStoreTest, TheRootMayBearAnyName) {
  ItemRecord root;
  root.rid = kRootRid;
  root.kind = ItemKind::folder;
  store().save(root);
  EXPECT_EQ(rows().at(kRootRid), root);
}

TEST_F(ItemStoreTest, ATransactionIsCommittedAsAWhole) {
  {
    ItemStore::Transaction transaction(store());
    store().save(item(2));
    store().save(item(3));
    transaction.commit();
  }
  reopen();
  EXPECT_THAT(names(), ElementsAre("item 2", "item 3"));
}

TEST_F(ItemStoreTest, ATransactionThatIsNotCommittedIsUndone) {
  store().save(item(2));
  {
    ItemStore::Transaction transaction(store());
    store().save(item(3));
    store().remove(2);
  }
  EXPECT_THAT(names(), ElementsAre("item 2"));
  store().save(item(4));
  reopen();
  EXPECT_THAT(names(), ElementsAre("item 2", "item 4"));
}

TEST_F(ItemStoreTest, OfNestedTransactionsTheOutermostCounts) {
  {
    ItemStore::Transaction outer(store());
    store().save(item(2));
    {
      ItemStore::Transaction inner(store());
      store().save(item(3));
      inner.commit();
    }
  }
  EXPECT_THAT(names(), IsEmpty());
  {
    ItemStore::Transaction outer(store());
    {
      ItemStore::Transaction inner(store());
      store().save(item(4));
      inner.commit();
    }
    store().save(item(5));
    outer.commit();
  }
  EXPECT_THAT(names(), ElementsAre("item 4", "item 5"));
}

TEST_F(ItemStoreTest, AnInnerTransactionThatIsNotCommittedUndoesTheOutermost) {
  {
    ItemStore::Transaction outer(store());
    store().save(item(2));
    { ItemStore::Transaction inner(store()); }
    EXPECT_EQ(errorOf([&] { store().save(item(3)); }), ECANCELED);
    EXPECT_EQ(errorOf([&] { outer.commit(); }), ECANCELED);
  }
  EXPECT_THAT(names(), IsEmpty());
  store().save(item(4));
  EXPECT_THAT(names(), ElementsAre("item 4"));
}

TEST_F(ItemStoreTest, RecordsWithoutSenseAreNotSaved) {
  const auto refused = [&](auto change) {
    auto record = fullRecord();
    change(record);
    return errorOf([&] { store().save(record); });
  };
  EXPECT_EQ(refused([](ItemRecord& record) { record.rid = 0; }), EINVAL);
  EXPECT_EQ(refused([](ItemRecord& record) { record.rid = UINT64_MAX; }), EINVAL);
  EXPECT_EQ(refused([](ItemRecord& record) { record.size = -1; }), EINVAL);
  EXPECT_EQ(refused([](ItemRecord& record) { record.base->size = -1; }), EINVAL);
  EXPECT_EQ(refused([](ItemRecord& record) { record.name = "a/b"; }), EINVAL);
  EXPECT_EQ(refused([](ItemRecord& record) { record.name = ""; }), EINVAL);
  EXPECT_EQ(refused([](ItemRecord& record) { record.mode = 0x8000; }), EINVAL);
  EXPECT_EQ(refused([](ItemRecord& record) { record.kind = static_cast<ItemKind>(2); }), EINVAL);
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(ItemStoreTest, ATransactionWithAChangeThatFailedIsNotCommitted) {
  {
    ItemStore::Transaction transaction(store());
    store().save(item(2));
    EXPECT_EQ(errorOf([&] { store().save(ItemRecord{}); }), EINVAL);
    EXPECT_EQ(errorOf([&] { transaction.commit(); }), ECANCELED);
  }
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(ItemStoreTest, NumbersBeginWithTwoAndGoOnAfterAnOrderlyEnd) {
  EXPECT_EQ(store().nextNumber(), 2u);
  EXPECT_EQ(store().nextNumber(), 3u);
  reopen();
  EXPECT_EQ(store().nextNumber(), 4u);
}

TEST_F(ItemStoreTest, NumbersOfATransactionThatIsUndoneAreNotGivenAgain) {
  Number last = 0;
  {
    ItemStore::Transaction transaction(store());
    // More than are reserved at once.
    for (int i = 0; i < 300'000; ++i) last = store().nextNumber();
  }
  EXPECT_EQ(store().nextNumber(), last + 1);
  reopen();
  EXPECT_EQ(store().nextNumber(), last + 2);
}

TEST_F(ItemStoreTest, NumbersKeepGrowingThroughManyReservations) {
  Number last = 1;
  for (int i = 0; i < 500'000; ++i) {
    const auto next = store().nextNumber();
    ASSERT_EQ(next, last + 1);
    last = next;
  }
}

TEST_F(ItemStoreTest, OnlyOneCanUseIt) {
  store();
  EXPECT_EQ(errorOf([&] { ItemStore second(directory()); }), EBUSY);
  store().save(item(2));
  close();
  EXPECT_THAT(names(), ElementsAre("item 2"));
}

TEST_F(ItemStoreTest, ADirectoryThatIsNotThereIsAnError) {
  EXPECT_EQ(errorOf([&] { ItemStore store(directory() + "/absent"); }), ENOENT);
}

TEST_F(ItemStoreTest, SyncsFromAnotherThreadWhileOthersCommit) {
  constexpr Rid kLast = 3000;
  std::atomic<bool> done = false;
  std::atomic<int> syncs = 0;
  store();
  std::thread syncer([&] {
    while (!done) {
      store().sync();
      ++syncs;
    }
  });
  for (Rid rid = 2; rid <= kLast; ++rid) store().save(item(rid));
  // Through the point, too, where the log is moved to the file.
  for (Rid rid = 2; rid <= kLast; ++rid) store().save(item(rid));
  while (syncs == 0) std::this_thread::yield();
  done = true;
  syncer.join();
  store().sync();
  reopen();
  EXPECT_EQ(rows().size(), kLast - 1);
}

TEST_F(ItemStoreTest, CompactingGivesSpaceBackAndKeepsTheRows) {
  {
    ItemStore::Transaction transaction(store());
    for (Rid rid = 2; rid < 40'002; ++rid) {
      auto record = item(rid);
      record.attributes = replica::AttributeMap{{"user.text", std::string(300, 'x')}};
      store().save(record);
    }
    transaction.commit();
  }
  reopen();
  const auto before = fs::file_size(file());
  {
    ItemStore::Transaction transaction(store());
    for (Rid rid = 12; rid < 40'002; ++rid) store().remove(rid);
    store().compact();
    transaction.commit();
  }
  store().compact();
  EXPECT_LT(fs::file_size(file()), before / 10);
  EXPECT_EQ(rows().size(), 10u);
  store().save(item(500));
  reopen();
  EXPECT_EQ(rows().size(), 11u);
}

TEST_F(ItemStoreTest, AFullDiskIsReportedAndTakesNothingAway) {
  if (!canMount()) GTEST_SKIP() << "no file system can be mounted here";
  store();
  close();
  // In a process of its own, whose mounts nobody else sees.
  const auto failure = inChild([&](auto fail) {
    if (!mountSmallFileSystem(directory())) return fail("mount");
    ItemStore small(directory());
    Rid saved = 1;
    std::int64_t code = 0;
    while (code == 0 && saved < 100'000) {
      auto record = item(saved + 1);
      record.attributes = replica::AttributeMap{{"user.text", std::string(1000, 'x')}};
      code = errorOf([&] { small.save(record); });
      if (code == 0) ++saved;
    }
    if (code != ENOSPC) return fail("not ENOSPC but " + std::to_string(code));
    std::size_t count = 0;
    small.load([&](const ItemRecord&) { ++count; });
    if (count != saved - 1) return fail("rows are missing");
    code = errorOf([&] {
      ItemStore::Transaction transaction(small);
      for (Rid rid = saved + 1; rid < saved + 5000; ++rid) small.save(item(rid));
      transaction.commit();
    });
    if (code != ENOSPC) return fail("in a transaction not ENOSPC but " + std::to_string(code));
    count = 0;
    small.load([&](const ItemRecord&) { ++count; });
    if (count != saved - 1) return fail("a part of a transaction stayed");
  });
  EXPECT_EQ(failure, "");
}

}  // namespace
}  // namespace kestrowan::replica
