#include "EntryPointTest.h"

#include <memory>
#include <string>

namespace {

using namespace kestrowan::test;

TEST_F(EntryPointTest, LookupPassesItsArgumentsAndAnswer) {
  const auto calls = std::make_shared<Calls<ItemCall>>();
  look(extension(core), "/Home/a ü", calls);
  EXPECT_EQ(core->identifier, "/Home/a ü");
  EXPECT_EQ(calls->count(), 0u);
  core->itemCompletion(coreFile("/Home/a ü"), kNoError);
  EXPECT_EQ(utf8([calls->only().item.get() itemIdentifier]), "/Home/a ü");
  EXPECT_FALSE(calls->only().error.get());
}

TEST_F(EntryPointTest, LookupPassesAnError) {
  const auto calls = std::make_shared<Calls<ItemCall>>();
  look(extension(core), "/a", calls);
  core->itemCompletion(nullptr, kestrowan::NSError("NSFileProviderErrorDomain", -1005));
  EXPECT_FALSE(calls->only().item.get());
  EXPECT_EQ(described(calls->only().error), "NSFileProviderErrorDomain -1005");
}

TEST_F(EntryPointTest, FetchPassesItsArgumentsAndAnswer) {
  const auto calls = std::make_shared<Calls<FetchCall>>();
  fetch(extension(core), "/Home/a", calls);
  EXPECT_EQ(core->identifier, "/Home/a");
  EXPECT_EQ(core->version, std::nullopt);
  core->fetchCompletion(kestrowan::NSURL::fileURLWithPath("/tmp/x y"), coreFile("/Home/a"),
                        kNoError);
  const auto call = calls->only();
  EXPECT_EQ(utf8([call.url.get() path]), "/tmp/x y");
  EXPECT_EQ(utf8([call.item.get() filename]), "a");
  EXPECT_FALSE(call.error.get());
}

TEST_F(EntryPointTest, FetchPassesTheRequestedVersion) {
  [extension(core) fetchContentsForItemWithIdentifier:@"/a"
                                              version:version("content", "metadata")
                                              request:request()
                                    completionHandler:^(NSURL*, id<NSFileProviderItem>, NSError*){
                                    }];
  EXPECT_EQ(core->version, (kestrowan::NSFileProviderItemVersion{"content", "metadata"}));
}

TEST_F(EntryPointTest, FetchPassesAnError) {
  const auto calls = std::make_shared<Calls<FetchCall>>();
  fetch(extension(core), "/a", calls);
  core->fetchCompletion(std::nullopt, nullptr, kestrowan::NSError("NSURLErrorDomain", -1004));
  EXPECT_FALSE(calls->only().url.get());
  EXPECT_FALSE(calls->only().item.get());
  EXPECT_EQ(described(calls->only().error), "NSURLErrorDomain -1004");
}

TEST_F(EntryPointTest, CreationPassesItsArgumentsAndAnswer) {
  const auto calls = std::make_shared<Calls<WriteCall>>();
  [extension(core)
      createItemBasedOnTemplate:full("/t", "/Home", "a.txt", UTTypeData)
                         fields:131
                       contents:fileURL("/tmp/body")
                        options:2
                        request:request()
              completionHandler:^(id<NSFileProviderItem> item, NSFileProviderItemFields fields,
                                  BOOL shouldFetch, NSError* error) {
                calls->add({Retained<id<NSFileProviderItem>>(item), fields, bool(shouldFetch),
                            Retained<NSError*>(error)});
              }];
  EXPECT_EQ(core->givenItem->parentItemIdentifier(), "/Home");
  EXPECT_EQ(core->givenItem->filename(), "a.txt");
  EXPECT_EQ(core->givenItem->contentType(), kestrowan::UTType::data());
  EXPECT_EQ(core->fields, 131u);
  EXPECT_EQ(core->options, 2u);
  EXPECT_EQ(core->contents->path(), "/tmp/body");
  core->writeCompletion(coreFile("/Home/a.txt"), 4, true, kNoError);
  const auto call = calls->only();
  EXPECT_EQ(utf8([call.item.get() itemIdentifier]), "/Home/a.txt");
  EXPECT_EQ(call.remainingFields, 4u);
  EXPECT_TRUE(call.shouldFetchContent);
  EXPECT_FALSE(call.error.get());
}

TEST_F(EntryPointTest, CreationWithoutContentsOrTypePassesNone) {
  const auto calls = std::make_shared<Calls<WriteCall>>();
  create(extension(core), plain("/t", "/Home", "a"), nil, calls);
  EXPECT_EQ(core->givenItem->contentType(), std::nullopt);
  EXPECT_EQ(core->contents, std::nullopt);
  core->writeCompletion(nullptr, 0, false, kestrowan::NSError("NSPOSIXErrorDomain", 1));
  const auto call = calls->only();
  EXPECT_FALSE(call.item.get());
  EXPECT_EQ(call.remainingFields, 0u);
  EXPECT_FALSE(call.shouldFetchContent);
  EXPECT_EQ(described(call.error), "NSPOSIXErrorDomain 1");
}

TEST_F(EntryPointTest, ModificationPassesItsArgumentsAndAnswer) {
  const auto calls = std::make_shared<Calls<WriteCall>>();
  [extension(core) modifyItem:plain("/Home/a", "/Home", "b")
                  baseVersion:version("content", "metadata")
                changedFields:7
                     contents:fileURL("/tmp/new")
                      options:1
                      request:request()
            completionHandler:^(id<NSFileProviderItem> item, NSFileProviderItemFields fields,
                                BOOL shouldFetch, NSError* error) {
              calls->add({Retained<id<NSFileProviderItem>>(item), fields, bool(shouldFetch),
                          Retained<NSError*>(error)});
            }];
  EXPECT_EQ(core->givenItem->itemIdentifier(), "/Home/a");
  EXPECT_EQ(core->givenItem->filename(), "b");
  EXPECT_EQ(core->version, (kestrowan::NSFileProviderItemVersion{"content", "metadata"}));
  EXPECT_EQ(core->fields, 7u);
  EXPECT_EQ(core->options, 1u);
  EXPECT_EQ(core->contents->path(), "/tmp/new");
  core->writeCompletion(coreFile("/Home/b"), 0, false, kNoError);
  EXPECT_EQ(utf8([calls->only().item.get() itemIdentifier]), "/Home/b");
  EXPECT_EQ(calls->only().remainingFields, 0u);
  EXPECT_FALSE(calls->only().shouldFetchContent);
}

TEST_F(EntryPointTest, DeletionPassesItsArgumentsAndAnswer) {
  const auto calls = std::make_shared<Calls<DeleteCall>>();
  FileProviderExtension* const made = extension(core);
  remove(made, "/Home/a", calls);
  EXPECT_EQ(core->identifier, "/Home/a");
  EXPECT_EQ(core->version, (kestrowan::NSFileProviderItemVersion{"v", "v"}));
  EXPECT_EQ(core->options, 1u);
  core->deleteCompletion(std::nullopt);
  EXPECT_FALSE(calls->only().error.get());

  const auto failing = std::make_shared<Calls<DeleteCall>>();
  remove(made, "/Home/a", failing);
  core->deleteCompletion(kestrowan::NSError("NSFileProviderErrorDomain", -1000));
  EXPECT_EQ(described(failing->only().error), "NSFileProviderErrorDomain -1000");
}

TEST_F(EntryPointTest, InvalidationIsPassedOn) {
  FileProviderExtension* const made = extension(core);
  [made invalidate];
  EXPECT_EQ(core->invalidations, 1);
}

TEST_F(EntryPointTest, ItemThatWasPassedInComesBackItself) {
  const auto calls = std::make_shared<Calls<WriteCall>>();
  PlainTemplate* const item = plain("/a", "/", "a");
  modify(extension(core), item, 1, nil, calls);
  core->writeCompletion(core->givenItem, 0, false,
                        kestrowan::NSError("NSFileProviderErrorDomain", -1000));
  EXPECT_EQ(calls->only().item.get(), item);
  core->givenItem.reset();
}

TEST_F(EntryPointTest, ProgressOfMostRequestsIsPlain) {
  FileProviderExtension* const made = extension(core);
  for (NSProgress* const progress :
       {look(made, "/a", std::make_shared<Calls<ItemCall>>()),
        fetch(made, "/a", std::make_shared<Calls<FetchCall>>()),
        create(made, plain("/a", "/", "a"), nil, std::make_shared<Calls<WriteCall>>()),
        modify(made, plain("/a", "/", "a"), 1, nil, std::make_shared<Calls<WriteCall>>()),
        remove(made, "/a", std::make_shared<Calls<DeleteCall>>())}) {
    ASSERT_TRUE(progress);
    EXPECT_EQ([progress totalUnitCount], 0);
    EXPECT_EQ([progress completedUnitCount], 0);
    EXPECT_EQ([progress fractionCompleted], 0.0);
  }
}

TEST_F(EntryPointTest, EachRequestHasAProgressOfItsOwn) {
  FileProviderExtension* const made = extension(core);
  NSProgress* const first = look(made, "/a", std::make_shared<Calls<ItemCall>>());
  NSProgress* const second = look(made, "/a", std::make_shared<Calls<ItemCall>>());
  EXPECT_NE(first, second);
}

TEST_F(EntryPointTest, ProgressOfAFetchIsFullWhenItsHandlerRuns) {
  core->progress = std::make_shared<kestrowan::NSProgress>(100);
  const auto calls = std::make_shared<Calls<FetchCall>>();
  const auto shown = std::make_shared<Retained<NSProgress*>>();
  *shown = Retained<NSProgress*>([extension(core)
      fetchContentsForItemWithIdentifier:@"/a"
                                 version:nil
                                 request:request()
                       completionHandler:^(NSURL*, id<NSFileProviderItem>, NSError*) {
                         FetchCall call;
                         call.completedUnitCount = [shown->get() completedUnitCount];
                         calls->add(std::move(call));
                       }]);
  EXPECT_EQ([shown->get() totalUnitCount], 100);
  EXPECT_EQ([shown->get() completedUnitCount], 0);
  core->progress->setCompletedUnitCount(100);
  core->fetchCompletion(std::nullopt, nullptr, kNoError);
  EXPECT_EQ(calls->only().completedUnitCount, 100);
  EXPECT_EQ([shown->get() totalUnitCount], 100);
  EXPECT_EQ([shown->get() fractionCompleted], 1.0);
  core->fetchCompletion = nullptr;
}

TEST_F(EntryPointTest, ProgressOfAFailedFetchStaysEmpty) {
  core->progress = std::make_shared<kestrowan::NSProgress>(100);
  const auto calls = std::make_shared<Calls<FetchCall>>();
  NSProgress* const progress = fetch(extension(core), "/a", calls);
  core->fetchCompletion(std::nullopt, nullptr, kestrowan::NSError("NSURLErrorDomain", -1004));
  calls->only();
  EXPECT_EQ([progress totalUnitCount], 100);
  EXPECT_EQ([progress completedUnitCount], 0);
}

TEST_F(EntryPointTest, ProgressOfAFetchThatEndsBeforeItsEntryPointIsFull) {
  core->progress = std::make_shared<kestrowan::NSProgress>(100);
  core->fetchAtOnce = true;
  const auto calls = std::make_shared<Calls<FetchCall>>();
  NSProgress* const progress = fetch(extension(core), "/a", calls);
  EXPECT_EQ(calls->count(), 1u);
  EXPECT_EQ([progress totalUnitCount], 100);
  EXPECT_EQ([progress completedUnitCount], 100);
}

}  // namespace
