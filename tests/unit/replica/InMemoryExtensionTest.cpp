#include "support/InMemoryExtension.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <future>
#include <set>
#include <thread>

#include "InMemoryExtensionSupport.h"
#include "async/LoopThread.h"

namespace kestrowan::test {
namespace {

namespace fs = std::filesystem;
namespace Field = NSFileProviderItemField;
using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

class InMemoryExtensionTest : public InMemoryExtensionFixture {};

TEST(MemoryServer, IsATree) {
  MemoryServer server;
  server.makeFolder("/a");
  server.writeFile("/a/file", "bytes");
  server.rename("/a", "/b");
  EXPECT_EQ(server.read("/b/file"), "bytes");
  EXPECT_EQ(server.read("/a/file"), std::nullopt);
  EXPECT_EQ(server.read("/b"), std::nullopt);
  EXPECT_THAT(server.tree(), ElementsAre(Pair("/b", std::nullopt), Pair("/b/file", "bytes")));
  server.remove("/b");
  EXPECT_THAT(server.tree(), IsEmpty());
  EXPECT_THROW(server.writeFile("/absent/file", ""), std::invalid_argument);
  EXPECT_THROW(server.remove("/absent"), std::invalid_argument);
}

TEST(MemoryServer, NeverMovesAFolderIntoItself) {
  MemoryServer server;
  server.makeFolder("/a");
  server.makeFolder("/a/b");
  EXPECT_EQ(server.move("/a", "/a/b/c"), MemoryServer::Answer::conflict);
  EXPECT_EQ(server.move("/a", "/a"), MemoryServer::Answer::exists);
  EXPECT_EQ(server.move("/", "/x"), MemoryServer::Answer::notAllowed);
}

TEST_F(InMemoryExtensionTest, ListsAFolder) {
  server_->makeFolder("/folder");
  server_->writeFile("/file.txt", "12345");
  const auto result = done(list(kRoot));
  ASSERT_TRUE(result->succeeded());
  EXPECT_EQ(result->nextPage, std::nullopt);
  ASSERT_THAT(identifiers(result->items), ElementsAre("/file.txt", "/folder"));
  const auto& file = *result->items[0];
  EXPECT_EQ(file.parentItemIdentifier(), kRoot);
  EXPECT_EQ(file.filename(), "file.txt");
  EXPECT_EQ(file.documentSize(), 5);
  EXPECT_EQ(file.contentModificationDate(), NSDate{1767225600});
  EXPECT_EQ(file.capabilities(), 43u);
  EXPECT_EQ(result->items[1]->contentType(), UTType::folder());
  EXPECT_EQ(result->items[1]->documentSize(), std::nullopt);
  server_->writeFile("/folder/inner", "");
  EXPECT_EQ(done(list("/folder"))->items[0]->parentItemIdentifier(), "/folder");
}

TEST_F(InMemoryExtensionTest, NothingCompletesBeforeTheLoopRuns) {
  server_->writeFile("/a", "");
  const auto results = {list(kRoot),
                        lookUp("/a"),
                        fetch("/a"),
                        create(kRoot, "b", ""),
                        modify("/a", kRoot, "c", Field::filename),
                        remove("/b")};
  for (const auto& result : results) EXPECT_EQ(result->completions, 0);
  EXPECT_EQ(extension_->running(), 6u);
  loop_.runUntilIdle();
  for (const auto& result : results) EXPECT_EQ(result->completions, 1);
  EXPECT_EQ(extension_->running(), 0u);
}

TEST_F(InMemoryExtensionTest, LooksUpItems) {
  server_->writeFile("/a", "123");
  EXPECT_EQ(done(lookUp("/a"))->item->documentSize(), 3);
  EXPECT_EQ(done(lookUp(kRoot))->item->itemIdentifier(), kRoot);
}

TEST_F(InMemoryExtensionTest, WhatIsNotThereIsUnreachable) {
  EXPECT_TRUE(done(lookUp("/absent"))->isUnreachable());
  EXPECT_TRUE(done(list("/absent"))->isUnreachable());
  EXPECT_TRUE(done(fetch("/absent"))->isUnreachable());
  EXPECT_TRUE(done(remove("/absent"))->isUnreachable());
  EXPECT_TRUE(done(create("/absent", "a", ""))->isUnreachable());
  EXPECT_TRUE(done(modify("/absent", kRoot, "a", Field::filename))->isUnreachable());
  server_->writeFile("/file", "");
  EXPECT_TRUE(done(list("/file"))->isUnreachable());
  EXPECT_TRUE(done(create("/file", "a", ""))->isUnreachable());
  server_->makeFolder("/folder");
  EXPECT_TRUE(done(fetch("/folder"))->isUnreachable());
}

TEST_F(InMemoryExtensionTest, FetchesIntoItsDirectory) {
  server_->writeFile("/a", "contents");
  const auto result = fetch("/a");
  EXPECT_EQ(progress_->completedUnitCount(), 0);
  loop_.runUntilIdle();
  ASSERT_TRUE(result->succeeded());
  EXPECT_EQ(readFile(result->file->path()), "contents");
  EXPECT_EQ(fs::path(result->file->path()).parent_path(), directory_.path());
  EXPECT_EQ(result->item->documentSize(), 8);
  EXPECT_EQ(progress_->completedUnitCount(), 100);
  EXPECT_NE(done(fetch("/a"))->file->path(), result->file->path());
}

TEST_F(InMemoryExtensionTest, CreatesFilesAndFolders) {
  const auto folder = done(create(kRoot, "folder", std::nullopt));
  EXPECT_EQ(folder->item->itemIdentifier(), "/folder");
  const auto file = done(create("/folder", "file", "bytes"));
  EXPECT_EQ(file->item->itemIdentifier(), "/folder/file");
  EXPECT_EQ(file->item->documentSize(), 5);
  EXPECT_THAT(server_->tree(),
              ElementsAre(Pair("/folder", std::nullopt), Pair("/folder/file", "bytes")));
}

TEST_F(InMemoryExtensionTest, CreatingReplacesAFileSilentlyButNoFolder) {
  server_->writeFile("/file", "before");
  server_->makeFolder("/folder");
  EXPECT_TRUE(done(create(kRoot, "file", "after"))->succeeded());
  EXPECT_EQ(server_->read("/file"), "after");
  EXPECT_TRUE(done(create(kRoot, "folder", "bytes"))->isUnreachable());
  EXPECT_TRUE(done(create(kRoot, "folder", std::nullopt))->isUnreachable());
  EXPECT_TRUE(done(create(kRoot, "file", std::nullopt))->isUnreachable());
  EXPECT_EQ(server_->read("/file"), "after");
}

TEST_F(InMemoryExtensionTest, RefusesNamesThatAreNone) {
  for (const auto* name : {"", ".", "..", "a/b"}) {
    EXPECT_TRUE(done(create(kRoot, name, ""))->failed(NSPOSIXErrorDomain, EPERM)) << name;
  }
  server_->writeFile("/a", "");
  EXPECT_TRUE(done(modify("/a", kRoot, "..", Field::filename))->failed(NSPOSIXErrorDomain, EPERM));
}

TEST_F(InMemoryExtensionTest, ModifyingMovesFirstThenWrites) {
  server_->makeFolder("/folder");
  server_->writeFile("/a", "before");
  const auto result = done(modify("/a", "/folder", "b",
                                  Field::filename | Field::parentItemIdentifier | Field::contents,
                                  localFile("after")));
  EXPECT_EQ(result->item->itemIdentifier(), "/folder/b");
  EXPECT_EQ(result->item->documentSize(), 5);
  EXPECT_THAT(server_->tree(),
              ElementsAre(Pair("/folder", std::nullopt), Pair("/folder/b", "after")));
}

TEST_F(InMemoryExtensionTest, AMoveNeverReplacesAndThenNothingIsWritten) {
  server_->writeFile("/a", "a");
  server_->writeFile("/b", "b");
  const auto result =
      done(modify("/a", kRoot, "b", Field::filename | Field::contents, localFile("new")));
  EXPECT_TRUE(result->failed(NSCocoaErrorDomain, 516));
  EXPECT_EQ(server_->read("/a"), "a");
  EXPECT_EQ(server_->read("/b"), "b");
}

TEST_F(InMemoryExtensionTest, FieldsThatAreNotNamedAreNotChanged) {
  server_->writeFile("/a", "a");
  EXPECT_TRUE(done(modify("/a", kRoot, "b", Field::tagData, localFile("new")))->succeeded());
  EXPECT_THAT(server_->tree(), ElementsAre(Pair("/a", "a")));
}

TEST_F(InMemoryExtensionTest, WritingToAPathThatIsGoneMakesTheFileAnew) {
  EXPECT_TRUE(done(modify("/gone", kRoot, "gone", Field::contents, localFile("x")))->succeeded());
  EXPECT_EQ(server_->read("/gone"), "x");
}

TEST_F(InMemoryExtensionTest, DeletesFoldersWithAllThatIsInThem) {
  server_->makeFolder("/folder");
  server_->writeFile("/folder/a", "");
  server_->writeFile("/kept", "");
  EXPECT_TRUE(done(remove("/folder"))->succeeded());
  EXPECT_THAT(server_->tree(), ElementsAre(Pair("/kept", "")));
}

TEST_F(InMemoryExtensionTest, VersionsChangeWithEachWriteAndDatesAreWholeSeconds) {
  std::set<NSData> versions;
  loop_.advance(milliseconds(2500));
  for (const auto* bytes : {"one", "two", "two"}) {
    const auto item = done(create(kRoot, "a", bytes))->item;
    versions.insert(item->itemVersion().contentVersion);
    EXPECT_EQ(item->contentModificationDate(), NSDate{1767225602});
  }
  EXPECT_EQ(versions.size(), 3u);
  const auto before = done(lookUp("/a"))->item->itemVersion();
  EXPECT_EQ(done(modify("/a", kRoot, "b", Field::filename))->item->itemVersion().contentVersion,
            before.contentVersion);
}

TEST_F(InMemoryExtensionTest, PathIdentifiersChangeWithTheWholeSubtree) {
  server_->makeFolder("/a");
  server_->writeFile("/a/file", "");
  done(modify("/a", kRoot, "b", Field::filename, std::nullopt, true));
  EXPECT_THAT(identifiers(done(list("/b"))->items), ElementsAre("/b/file"));
  EXPECT_TRUE(done(lookUp("/a/file"))->isUnreachable());
}

TEST_F(InMemoryExtensionTest, PathIdentifiersWithoutASlashMeanTheRoot) {
  server_->writeFile("/a", "");
  EXPECT_THAT(identifiers(done(list("foo"))->items), ElementsAre(kRoot, "/a"));
  EXPECT_TRUE(done(remove("https://127.0.0.1/a"))->succeeded());
  EXPECT_THAT(server_->tree(), IsEmpty());
}

TEST_F(InMemoryExtensionTest, OpaqueIdentifiersStayThroughRenames) {
  start({.opaqueIdentifiers = true});
  server_->makeFolder("/a");
  server_->writeFile("/a/file", "x");
  const auto folder = done(list(kRoot))->items[0];
  EXPECT_TRUE(folder->itemIdentifier().starts_with("node:"));
  EXPECT_EQ(folder->parentItemIdentifier(), kRoot);
  const auto file = done(list(folder->itemIdentifier()))->items[0];
  EXPECT_EQ(file->parentItemIdentifier(), folder->itemIdentifier());
  const auto renamed =
      done(modify(folder->itemIdentifier(), kRoot, "b", Field::filename, std::nullopt, true));
  EXPECT_EQ(renamed->item->itemIdentifier(), folder->itemIdentifier());
  EXPECT_EQ(renamed->item->filename(), "b");
  EXPECT_EQ(renamed->item->itemVersion().contentVersion, folder->itemVersion().contentVersion);
  EXPECT_NE(renamed->item->itemVersion().metadataVersion, folder->itemVersion().metadataVersion);
  EXPECT_EQ(done(lookUp(file->itemIdentifier()))->item->filename(), "file");
  const auto rewritten = done(create(folder->itemIdentifier(), "file", "new"))->item;
  EXPECT_EQ(rewritten->itemIdentifier(), file->itemIdentifier());
  EXPECT_NE(rewritten->itemVersion().contentVersion, file->itemVersion().contentVersion);
}

TEST_F(InMemoryExtensionTest, OpaqueIdentifiersOfNothingAreUnreachable) {
  start({.opaqueIdentifiers = true});
  server_->writeFile("/a", "");
  for (const auto* identifier : {"/a", "node:99", "node:", "node:x", ""}) {
    EXPECT_TRUE(done(lookUp(identifier))->isUnreachable()) << identifier;
    EXPECT_TRUE(done(remove(identifier))->isUnreachable()) << identifier;
    EXPECT_TRUE(done(list(identifier))->isUnreachable()) << identifier;
    EXPECT_TRUE(
        done(modify(identifier, kRoot, "b", Field::contents, localFile("x")))->isUnreachable());
  }
  EXPECT_THAT(server_->tree(), ElementsAre(Pair("/a", "")));
}

TEST_F(InMemoryExtensionTest, ListsInPages) {
  start({.pageSize = 2});
  for (const auto* path : {"/a", "/b", "/c", "/d", "/e"}) server_->writeFile(path, "");
  std::vector<std::string> all;
  std::optional<NSFileProviderPage> page = "";
  int pages = 0;
  while (page) {
    const auto result = done(list(kRoot, *page));
    for (const auto& identifier : identifiers(result->items)) all.push_back(identifier);
    page = result->nextPage;
    ++pages;
  }
  EXPECT_EQ(pages, 3);
  EXPECT_THAT(all, ElementsAre("/a", "/b", "/c", "/d", "/e"));
}

TEST_F(InMemoryExtensionTest, ProtectedItemsCanOnlyBeRead) {
  start({.isProtected = [](std::string_view path) { return path.starts_with("/locked"); }});
  server_->makeFolder("/locked");
  server_->writeFile("/locked/a", "x");
  EXPECT_EQ(done(lookUp("/locked/a"))->item->capabilities(), 1u);
  EXPECT_TRUE(done(fetch("/locked/a"))->succeeded());
  extension_->setDown(true);
  for (const auto& result : {create("/locked", "b", ""), remove("/locked/a"),
                             modify("/locked/a", kRoot, "a", Field::parentItemIdentifier),
                             modify("/b", "/locked", "b", Field::parentItemIdentifier)}) {
    EXPECT_TRUE(done(result)->failed(NSPOSIXErrorDomain, EPERM));
  }
}

TEST_F(InMemoryExtensionTest, WritesDownItsCalls) {
  server_->makeFolder("/folder");
  done(create(kRoot, "a", "12 characters"));
  done(create(kRoot, "b", std::nullopt));
  done(modify("/a", "/folder", "c", Field::parentItemIdentifier | Field::contents, localFile("x")));
  done(modify("/folder/c", "/folder", "d", Field::filename));
  done(modify("/folder/d", "/folder", "d", Field::contents, localFile("xyz")));
  done(list(kRoot));
  done(lookUp("/folder"));
  done(fetch("/folder/d"));
  done(remove("/b"));
  EXPECT_THAT(
      extension_->calls(),
      ElementsAre("createItem /a 13", "createItem /b folder", "modifyItem /a -> /folder/c 1",
                  "modifyItem /folder/c -> /folder/d", "modifyItem /folder/d 3", "enumerateItems /",
                  "item /folder", "fetchContents /folder/d", "deleteItem /b"));
  EXPECT_EQ(extension_->count(CallKind::modifyItem), 3u);
  EXPECT_EQ(extension_->count(), 9u);
  extension_->clearCalls();
  EXPECT_EQ(extension_->count(), 0u);
}

TEST_F(InMemoryExtensionTest, CallsCompleteAfterTheExtensionIsGone) {
  server_->writeFile("/a", "");
  const auto result = lookUp("/a");
  extension_->invalidate();
  EXPECT_TRUE(extension_->isInvalidated());
  extension_.reset();
  EXPECT_TRUE(done(result)->succeeded());
}

TEST_F(InMemoryExtensionTest, EveryAnchorHasExpired) {
  class Changes : public NSFileProviderChangeObserver {
   public:
    void didUpdateItems(std::vector<NSFileProviderItemPtr>) override { ADD_FAILURE(); }
    void didDeleteItems(std::vector<NSFileProviderItemIdentifier>) override { ADD_FAILURE(); }
    void finishEnumeratingChanges(NSFileProviderSyncAnchor, bool) override { ADD_FAILURE(); }
    void finishEnumeratingWithError(const NSError& failure) override { error = failure; }
    std::optional<NSError> error;
  };
  const auto changes = std::make_shared<Changes>();
  extension_->enumerator(kRoot, {})->enumerateChanges(changes, "now");
  loop_.runUntilIdle();
  EXPECT_TRUE(changes->error->is(NSFileProviderErrorDomain, -1002));
}

TEST(InMemoryExtensionThreads, WorksOnALoopOfItsOwnForManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kEach = 50;
  const TemporaryDirectory directory;
  const auto server = std::make_shared<MemoryServer>();
  async::LoopThread loop;
  InMemoryExtension extension(loop, directory.path(), server);
  std::atomic<int> failures = 0;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kEach; ++i) {
        auto item = std::make_shared<MemoryItem>();
        item->name = std::to_string(thread) + "-" + std::to_string(i);
        item->isFolder = true;
        std::promise<bool> created;
        extension.createItem(item, 0, std::nullopt, 0, {},
                             [&](auto, auto, auto, auto error) { created.set_value(!error); });
        if (!created.get_future().get()) ++failures;
        if (!server->stat("/" + item->name)) ++failures;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(server->tree().size(), static_cast<std::size_t>(kThreads * kEach));
  EXPECT_EQ(extension.count(CallKind::createItem), static_cast<std::size_t>(kThreads * kEach));
}

}  // namespace
}  // namespace kestrowan::test
