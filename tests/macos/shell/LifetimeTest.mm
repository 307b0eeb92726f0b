#include "EntryPointTest.h"

#include <cstring>
#include <memory>
#include <thread>

#include "macos/FPItem.h"

namespace {

using namespace kestrowan::test;

/// Overwrites what the stack held below its caller.
[[gnu::noinline]] void scribble() {
  volatile char stack[16 * 1024];
  std::memset(const_cast<char*>(stack), 0x5A, sizeof stack);
}

using LifetimeTest = EntryPointTest;

TEST_F(LifetimeTest, HandlersOutliveTheirCallersFrame) {
  const auto items = std::make_shared<Calls<ItemCall>>();
  const auto fetches = std::make_shared<Calls<FetchCall>>();
  const auto writes = std::make_shared<Calls<WriteCall>>();
  const auto deletes = std::make_shared<Calls<DeleteCall>>();
  FileProviderExtension* const made = extension(core);
  look(made, "/a", items);
  fetch(made, "/a", fetches);
  create(made, plain("/a", "/", "a"), nil, writes);
  remove(made, "/a", deletes);
  scribble();
  std::thread([this] {
    scribble();
    core->itemCompletion(coreFile("/a"), kNoError);
    core->fetchCompletion(kestrowan::NSURL::fileURLWithPath("/tmp/x"), coreFile("/a"), kNoError);
    core->writeCompletion(coreFile("/a"), 0, false, kNoError);
    core->deleteCompletion(std::nullopt);
  }).join();
  EXPECT_EQ(utf8([items->only().item.get() filename]), "a");
  EXPECT_EQ(utf8([fetches->only().url.get() path]), "/tmp/x");
  EXPECT_EQ(utf8([writes->only().item.get() filename]), "a");
  EXPECT_FALSE(deletes->only().error.get());
  EXPECT_NE(items->thread(), std::this_thread::get_id());
}

TEST_F(LifetimeTest, HandlersAreGivenUpWithTheirCompletions) {
  auto value = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = value;
  FileProviderExtension* const made = extension(core);
  @autoreleasepool {
    [made itemForIdentifier:@"/a"
                    request:request()
          completionHandler:^(id<NSFileProviderItem>, NSError*) {
            EXPECT_EQ(*value, 1);
          }];
    [made fetchContentsForItemWithIdentifier:@"/a"
                                     version:nil
                                     request:request()
                           completionHandler:^(NSURL*, id<NSFileProviderItem>, NSError*) {
                             EXPECT_EQ(*value, 1);
                           }];
    [made createItemBasedOnTemplate:plain("/a", "/", "a")
                             fields:0
                           contents:nil
                            options:0
                            request:request()
                  completionHandler:^(id<NSFileProviderItem>, NSFileProviderItemFields, BOOL,
                                      NSError*) {
                    EXPECT_EQ(*value, 1);
                  }];
    [made deleteItemWithIdentifier:@"/a"
                       baseVersion:version("v", "v")
                           options:0
                           request:request()
                 completionHandler:^(NSError*) {
                   EXPECT_EQ(*value, 1);
                 }];
  }
  value.reset();
  EXPECT_FALSE(watched.expired());
  core->itemCompletion(nullptr, kNoError);
  core->itemCompletion = nullptr;
  core->fetchCompletion(std::nullopt, nullptr, kNoError);
  core->fetchCompletion = nullptr;
  core->writeCompletion(nullptr, 0, false, kNoError);
  core->writeCompletion = nullptr;
  EXPECT_FALSE(watched.expired());
  core->deleteCompletion(std::nullopt);
  core->deleteCompletion = nullptr;
  EXPECT_TRUE(watched.expired());
}

TEST_F(LifetimeTest, HandlersRunInAPoolOfTheirOwn) {
  const auto calls = std::make_shared<Calls<ItemCall>>();
  look(extension(core), "/a", calls);
  std::thread([&] {
    core->itemCompletion(coreFile("/a"), kestrowan::NSError("NSPOSIXErrorDomain", 5));
    core->itemCompletion = nullptr;
    EXPECT_EQ(live([FPItem class]), 1);
  }).join();
}

TEST_F(LifetimeTest, ExtensionGivesUpItsProviderAndDomain) {
  const std::weak_ptr<FakeExtension> watched = core;
  @autoreleasepool {
    extension(std::move(core));
    EXPECT_FALSE(watched.expired());
    EXPECT_EQ(live([NSFileProviderDomain class]), 1);
  }
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(live([NSFileProviderDomain class]), 0);
}

TEST_F(LifetimeTest, DomainIsKeptWhileTheExtensionLives) {
  FileProviderExtension* made = nil;
  @autoreleasepool {
    made = [extension(core) retain];
  }
  EXPECT_EQ(live([NSFileProviderDomain class]), 1);
  [made release];
  EXPECT_EQ(live([NSFileProviderDomain class]), 0);
}

TEST_F(LifetimeTest, NothingGrowsWithTheNumberOfRequests) {
  const auto enumerator = std::make_shared<FakeEnumerator>();
  core->madeEnumerator = enumerator;
  core->progress = std::make_shared<kestrowan::NSProgress>(100);
  FileProviderExtension* const made = extension(core);
  const auto everything = [&] {
    @autoreleasepool {
      look(made, "/a ü", std::make_shared<Calls<ItemCall>>());
      core->itemCompletion(coreFile("/a ü"), kNoError);
      fetch(made, "/a ü", std::make_shared<Calls<FetchCall>>());
      core->fetchCompletion(kestrowan::NSURL::fileURLWithPath("/tmp/x"), coreFile("/a ü"),
                            kestrowan::cocoaWriteError(28, "/tmp/ü"));
      const auto writes = std::make_shared<Calls<WriteCall>>();
      create(made, full("/t", "/Home", "a.txt", UTTypeData), fileURL("/tmp/x"), writes);
      core->writeCompletion(core->givenItem, 0, false, kNoError);
      modify(made, full("/t", "/Home", "a.txt", UTTypeData), 1, fileURL("/tmp/x"), writes);
      core->writeCompletion(coreFile("/t"), 0, false, kNoError);
      remove(made, "/a ü", std::make_shared<Calls<DeleteCall>>());
      core->deleteCompletion(kestrowan::NSError("NSURLErrorDomain", -1005));
      list(made, "/Home", std::make_shared<Calls<Listing>>());
      enumerator->itemObserver->didEnumerateItems({coreFile("/a ü"), coreFile("/b.txt")});
      enumerator->itemObserver->finishEnumeratingUpToPage("next");
      FPItem* const item = [[[FPItem alloc] initWithCore:coreFile("/Home/a ü.txt")] autorelease];
      EXPECT_TRUE([item itemIdentifier] && [item parentItemIdentifier] && [item filename]);
      EXPECT_TRUE([item contentType] && [item documentSize] && [item itemVersion]);
      core->itemCompletion = nullptr;
      core->fetchCompletion = nullptr;
      core->writeCompletion = nullptr;
      core->deleteCompletion = nullptr;
      core->givenItem.reset();
      enumerator->itemObserver.reset();
    }
  };
  everything();
  const auto before = liveObjects();
  constexpr int kRounds = 50;
  for (int i = 0; i < kRounds; ++i) everything();
  // A leak would show once for each round; caches of the platform may still grow a little.
  EXPECT_LT(liveObjects() - before, kRounds / 2);
}

}  // namespace
