#include "replica/store/StartRepair.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "EarlierStore.h"
#include "StoreFixture.h"

namespace kestrowan::replica::store {
namespace {

namespace fs = std::filesystem;
using model::Attributes;
using model::Content;
using model::Edit;
using model::Intent;
using model::Item;
using model::ItemNumber;
using model::Kind;
using model::Origin;
using model::Path;
using model::Time;
using model::View;

class StartRepairTest : public StoreFixture {
 protected:
  /// A new process begins with what lies there. Nothing is made after it by the caller.
  void begin(bool machineStopped = false, const char* statements = nullptr) {
    restart(statements);
    repair(machineStopped);
  }
  void repair(bool machineStopped = false) {
    StartRepair(directory(), tree(), contents(), journal(), history(), loop_, machineStopped).run();
  }
  /// Of bytes that the provider has, too.
  ItemNumber addDownloaded(const std::string& name, const std::string& bytes) {
    return add(Kind::file, name, ItemNumber::root, made(bytes),
               static_cast<std::int64_t>(bytes.size()));
  }
  ItemNumber addUnsent(const std::string& name, const std::string& bytes) {
    const Content content = made(bytes);
    const ItemNumber number = addHere(name, content, static_cast<std::int64_t>(bytes.size()));
    Edit edit(tree());
    Attributes attributes = edit->item(number).attributes();
    attributes.modified = modifiedOf(content);
    edit.setAttributes(number, std::move(attributes));
    edit.commit();
    return number;
  }
  model::FileTime modifiedOf(Content content) {
    struct stat status;
    EXPECT_EQ(::stat(path(content).c_str(), &status), 0);
    return model::FileTime(std::chrono::seconds(status.st_mtim.tv_sec) +
                           std::chrono::nanoseconds(status.st_mtim.tv_nsec));
  }
  Content hereOf(ItemNumber number) { return View(tree())->item(number).here()->content; }
  std::string path(Content content) { return files().path(plain(content)); }
  void expectInStepWithoutBytes(ItemNumber number) {
    const View view(tree());
    const Item& item = view->item(number);
    EXPECT_EQ(item.here()->content, Content::none);
    EXPECT_EQ(item.agreed()->content, Content::none);
    EXPECT_EQ(item.there()->content, Content::none);
    EXPECT_TRUE(item.isInStep());
  }
  /// A folder that was listed, with its listing's time.
  ItemNumber addListed() {
    const ItemNumber folder = add(Kind::folder, "listed");
    Edit edit(tree());
    Attributes attributes;
    attributes.listedAt = kNow;
    edit.setAttributes(folder, attributes);
    edit.commit();
    return folder;
  }
  Time listedAt(ItemNumber folder) { return *View(tree())->item(folder).attributes().listedAt; }
};

TEST_F(StartRepairTest, ChangesNothingWhereRowsAndFilesAgree) {
  addDownloaded("a", "bytes");
  addUnsent("b", "unsent");
  add(Kind::file, "c");
  addListed();
  const auto before = items();
  begin();
  EXPECT_EQ(items(), before);
  EXPECT_EQ(history().usage().files, 0);
}

TEST_F(StartRepairTest, WhatIsMissingAndAtTheProviderIsFetchedAgain) {
  const ItemNumber file = addDownloaded("a", "bytes");
  fs::remove(path(hereOf(file)));
  begin();
  expectInStepWithoutBytes(file);
  EXPECT_EQ(history().usage().files, 0);
  begin();
  expectInStepWithoutBytes(file);
}

TEST_F(StartRepairTest, AChangeThatIsMissingIsGivenUp) {
  const ItemNumber file = add(Kind::file, "a");
  const Content lost = made("changed");
  save(file, lost, 7);
  fs::remove(path(lost));
  begin();
  expectInStepWithoutBytes(file);
  EXPECT_FALSE(View(tree())->item(file).attributes().size) << "it has the provider's";
  EXPECT_FALSE(entry(lost));
  EXPECT_EQ(history().usage().files, 0);
}

TEST_F(StartRepairTest, AFileThatIsNowhereIsNoMore) {
  const ItemNumber file = addUnsent("a", "unsent");
  fs::remove(path(hereOf(file)));
  begin();
  EXPECT_EQ(View(tree())->find(file), nullptr);
  EXPECT_EQ(history().usage().files, 0);
}

TEST_F(StartRepairTest, AFileWithoutAnyContentsIsNoMore) {
  const ItemNumber file = addUnsent("a", "unsent");
  const ItemNumber known = add(Kind::file, "b");
  save(known, made("more"), 4);
  const std::string statement = "UPDATE tree SET here_content=NULL WHERE number IN (" +
                                std::to_string(static_cast<std::uint64_t>(file)) + "," +
                                std::to_string(static_cast<std::uint64_t>(known)) + ")";
  begin(false, statement.c_str());
  EXPECT_EQ(View(tree())->find(file), nullptr);
  expectInStepWithoutBytes(known);
  EXPECT_EQ(history().usage().files, 2) << "the contents have lost their names alone";
}

TEST_F(StartRepairTest, DownloadedContentsOfAnotherSizeAreNotUsed) {
  const ItemNumber file = addDownloaded("a", "bytes");
  const Content content = hereOf(file);
  writeFile(path(content), "byt");
  begin();
  expectInStepWithoutBytes(file);
  EXPECT_FALSE(isThere(content));
}

TEST_F(StartRepairTest, DownloadedContentsAreNotTrustedAfterTheMachineStopped) {
  const ItemNumber file = addDownloaded("a", "bytes");
  const Content content = hereOf(file);
  begin(true);
  expectInStepWithoutBytes(file);
  EXPECT_FALSE(isThere(content));
}

TEST_F(StartRepairTest, WhatIsOnlyHereIsKeptAsItsFileIs) {
  const ItemNumber file = addUnsent("a", "unsent bytes");
  const Content content = hereOf(file);
  writeFile(path(content), "short");
  const auto modified = modifiedOf(content);
  begin(true);
  EXPECT_EQ(hereOf(file), content);
  EXPECT_EQ(View(tree())->item(file).attributes().size, 5);
  EXPECT_EQ(*View(tree())->item(file).attributes().modified, modified);
  EXPECT_GE(*View(tree())->item(file).attributes().changed, modified);
}

TEST_F(StartRepairTest, ContentsWithoutANameAreKept) {
  const Content given = made("given up");
  const Content empty = made("");
  addUnsent("a", "unsent");
  begin();
  ASSERT_TRUE(entry(given));
  EXPECT_EQ(entry(given)->reason, HistoryReason::found);
  EXPECT_EQ(entry(given)->confirmed, Confirmed::once) << "they were given up";
  EXPECT_EQ(entry(given)->size, 8);
  EXPECT_TRUE(entry(given)->path.empty());
  EXPECT_EQ(history().usage().files, 1);
  EXPECT_FALSE(isThere(empty));
  EXPECT_TRUE(isThere(given));
  begin();
  EXPECT_EQ(history().usage().files, 1);
}

TEST_F(StartRepairTest, ContentsWithoutANameMayBeAnItemsAfterTheMachineStopped) {
  const Content unnamed = made("unnamed");
  addUnsent("a", "unsent");
  begin(true);
  EXPECT_EQ(entry(unnamed)->confirmed, Confirmed::never);
}

TEST_F(StartRepairTest, ContentsOfRowsThatMadeNoSenseAreKept) {
  const ItemNumber file = addUnsent("a", "unsent");
  const Content content = hereOf(file);
  const ItemNumber folder = addListed();
  begin(false, "UPDATE tree SET kind=7 WHERE number=2");
  ASSERT_EQ(file, ItemNumber{2});
  EXPECT_EQ(View(tree())->find(file), nullptr);
  ASSERT_TRUE(entry(content));
  EXPECT_EQ(entry(content)->confirmed, Confirmed::never);
  EXPECT_EQ(listedAt(folder), Time());
  begin();
  EXPECT_EQ(journal().leftOut(), 0U);
  EXPECT_TRUE(entry(content));
}

TEST_F(StartRepairTest, WhatARequestMayHaveSentIsNoOrphan) {
  const Content sent = made("sent");
  {
    Intent put;
    put.target = Path().child("a");
    put.content = sent;
    put.until = kNow;
    Edit edit(tree());
    edit.add(put);
    edit.commit();
  }
  begin();
  EXPECT_TRUE(isThere(sent));
  EXPECT_FALSE(entry(sent));
}

TEST_F(StartRepairTest, WhatIsInTheHistoryIsKeptAsItsFileIs) {
  const ItemNumber file = addUnsent("a", "unsent");
  const Content content = hereOf(file);
  drop(file, Origin::program);
  writeFile(path(content), "un");
  begin();
  EXPECT_EQ(entry(content)->size, 6) << "as its row says";
  begin(true);
  EXPECT_EQ(entry(content)->size, 2);
  EXPECT_EQ(history().usage().bytes, files().allocated(plain(content)));
  fs::remove(path(content));
  begin();
  EXPECT_EQ(history().usage().files, 0);
}

TEST_F(StartRepairTest, ADatabaseThatIsOlderThanItsContentsDoubtsItsListings) {
  const ItemNumber folder = addListed();
  const ItemNumber file = addUnsent("a", "unsent");
  const auto later = plain(journal().firstFreeContent()) + 1'000'000;
  writeFile(files().path(later), "from later");
  begin();
  EXPECT_EQ(listedAt(folder), Time());
  EXPECT_NE(View(tree())->find(file), nullptr);
  ASSERT_TRUE(history().find(later));
  EXPECT_EQ(history().find(later)->confirmed, Confirmed::never);
  EXPECT_EQ(history().find(later)->reason, HistoryReason::found);
}

TEST_F(StartRepairTest, ADatabaseOfWhichNothingWasWrittenSinceIsNotOlderThanItsContents) {
  const ItemNumber folder = addListed();
  for (int i = 0; i < 3; ++i) {
    begin();
    made("begun, and the process died");
  }
  begin();
  EXPECT_EQ(listedAt(folder), kNow);
}

TEST_F(StartRepairTest, ContentsOfALostDatabaseAreKeptAsSuch) {
  const ItemNumber unsent = addUnsent("a", "unsent");
  const Content content = hereOf(unsent);
  const Content other = made("other");
  end();
  fs::remove(file());
  start();
  repair();
  EXPECT_EQ(View(tree())->count(), 1U);
  for (const Content each : {content, other}) {
    ASSERT_TRUE(entry(each));
    EXPECT_EQ(entry(each)->reason, HistoryReason::lost);
    EXPECT_EQ(entry(each)->confirmed, Confirmed::never);
  }
  EXPECT_GT(contents().next(), other) << "no number is given again";
}

TEST_F(StartRepairTest, ANewReplicaHasNothingToRepair) {
  repair();
  EXPECT_EQ(View(tree())->count(), 1U);
  EXPECT_EQ(history().usage().files, 0);
}

TEST_F(StartRepairTest, TakesOverTheFolderOfEarlierVersions) {
  fs::create_directories(directory() + "/recovery/2026-01-31T12-00-00Z lost");
  writeFile(directory() + "/recovery/2026-01-31T12-00-00Z report.txt", "report");
  writeFile(directory() + "/recovery/2026-01-31T12-00-00Z lost/17", "lost");
  addUnsent("a", "unsent");
  begin();
  EXPECT_FALSE(fs::exists(directory() + "/recovery"));
  const auto page = history().page(Confirmed::never, {}, 10);
  ASSERT_EQ(page.size(), 2U);
  std::int64_t taken = 0;
  for (const HistoryEntry& each : page) taken += files().allocated(each.content).value_or(0);
  EXPECT_EQ(history().usage().bytes, taken);
  for (const HistoryEntry& each : page) {
    const bool isLost = each.reason == HistoryReason::lost;
    EXPECT_EQ(each.path, isLost ? "" : "report.txt");
    EXPECT_EQ(bytesOf(files().path(each.content)), isLost ? "lost" : "report");
    EXPECT_EQ(each.at, 1769860800);
  }
  const auto before = items();
  begin();
  EXPECT_EQ(history().usage().files, 2);
  EXPECT_EQ(items(), before);
}

TEST_F(StartRepairTest, KeepsContentsThatNoItemOfAnEarlierVersionHasByTheirNames) {
  end();
  fs::remove(file());
  {
    EarlierStore store(directory());
    store.setNext(50);
    ItemRecord root;
    root.rid = root.parent = kRootRid;
    root.kind = ItemKind::folder;
    store.save(root);
    ItemRecord removed;
    removed.rid = 2;
    removed.parent = kRootRid;
    removed.name = "old.txt";
    removed.removed = true;
    removed.content = 20;
    store.save(removed);
    store.keep({.content = 21, .path = "/kept", .size = 4, .at = 100});
  }
  const ContentFiles files(directory());
  writeFile(files.path(20), "removed");
  writeFile(files.path(21), "kept");
  writeFile(files.path(22), "given up");
  start();
  repair();
  ASSERT_TRUE(history().find(20));
  EXPECT_EQ(history().find(20)->path, "old.txt");
  EXPECT_EQ(history().find(20)->confirmed, Confirmed::never);
  EXPECT_EQ(history().find(21)->path, "/kept");
  EXPECT_EQ(history().find(22)->confirmed, Confirmed::once);
  EXPECT_TRUE(journal().orphans().empty());
  EXPECT_EQ(history().usage().files, 3);
}

}  // namespace
}  // namespace kestrowan::replica::store
