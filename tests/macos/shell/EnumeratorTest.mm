#include "EntryPointTest.h"

#include <memory>
#include <string>
#include <vector>

#include "macos/DAVEnumerator.h"
#include "macos/FPItem.h"

namespace {

using namespace kestrowan::test;

using EnumeratorTest = EntryPointTest;

TEST_F(EnumeratorTest, EnumeratorPassesEverythingBothWays) {
  const auto enumerator = std::make_shared<FakeEnumerator>();
  core->madeEnumerator = enumerator;
  id<NSFileProviderEnumerator> made =
      [extension(core) enumeratorForContainerItemIdentifier:@"/Home"
                                                    request:request()
                                                      error:nullptr];
  EXPECT_EQ(core->identifier, "/Home");
  EXPECT_TRUE([(id)made isKindOfClass:[DAVEnumerator class]]);

  const auto listings = std::make_shared<Calls<Listing>>();
  TestObserver* const observer = [[[TestObserver alloc] initWithListings:listings] autorelease];
  [made enumerateItemsForObserver:observer
                   startingAtPage:[@"page" dataUsingEncoding:NSUTF8StringEncoding]];
  EXPECT_EQ(enumerator->page, "page");
  enumerator->itemObserver->didEnumerateItems({coreFile("/Home/z"), coreFile("/Home/a")});
  enumerator->itemObserver->didEnumerateItems({});
  enumerator->itemObserver->finishEnumeratingUpToPage("next");
  enumerator->itemObserver.reset();
  const auto listing = listings->only();
  ASSERT_EQ(listing.batches.size(), 2u);
  ASSERT_EQ(listing.batches[0].size(), 2u);
  EXPECT_EQ(utf8([listing.batches[0][0].get() filename]), "z");
  EXPECT_EQ(utf8([listing.batches[0][1].get() filename]), "a");
  EXPECT_EQ(listing.batches[1].size(), 0u);
  EXPECT_TRUE(listing.hasNextPage);
  EXPECT_EQ(bytesOf(listing.nextPage.get()), "next");

  [made invalidate];
  EXPECT_EQ(enumerator->invalidations, 1);
}

TEST_F(EnumeratorTest, LastPageIsNil) {
  const auto enumerator = std::make_shared<FakeEnumerator>();
  core->madeEnumerator = enumerator;
  const auto listings = std::make_shared<Calls<Listing>>();
  list(extension(core), "/Home", listings);
  enumerator->itemObserver->finishEnumeratingUpToPage(std::nullopt);
  enumerator->itemObserver.reset();
  EXPECT_FALSE(listings->only().hasNextPage);
  EXPECT_FALSE(listings->only().error.get());
}

TEST_F(EnumeratorTest, FailedListingPassesItsError) {
  const auto enumerator = std::make_shared<FakeEnumerator>();
  core->madeEnumerator = enumerator;
  const auto listings = std::make_shared<Calls<Listing>>();
  list(extension(core), "/Home", listings);
  enumerator->itemObserver->finishEnumeratingWithError(
      kestrowan::NSError("NSFileProviderErrorDomain", -1004));
  enumerator->itemObserver.reset();
  EXPECT_EQ(described(listings->only().error), "NSFileProviderErrorDomain -1004");
}

TEST_F(EnumeratorTest, ObserverIsKeptUntilTheListingEnds) {
  const auto enumerator = std::make_shared<FakeEnumerator>();
  core->madeEnumerator = enumerator;
  const auto listings = std::make_shared<Calls<Listing>>();
  @autoreleasepool {
    list(extension(core), "/Home", listings);
  }
  EXPECT_EQ(live([TestObserver class]), 1);
  EXPECT_EQ(live([DAVEnumerator class]), 0);
  enumerator->itemObserver->didEnumerateItems({coreFile("/a")});
  EXPECT_EQ(live([FPItem class]), 1);
  enumerator->itemObserver->finishEnumeratingUpToPage(std::nullopt);
  enumerator->itemObserver.reset();
  EXPECT_EQ(live([TestObserver class]), 0);
  EXPECT_EQ(listings->only().batches.size(), 1u);
}

TEST_F(EnumeratorTest, ChangesPassEverythingBothWays) {
  const auto enumerator = std::make_shared<FakeEnumerator>();
  DAVEnumerator* const made = [[[DAVEnumerator alloc] initWithCore:enumerator] autorelease];
  const auto changes = std::make_shared<Calls<Changes>>();
  TestObserver* const observer = [[[TestObserver alloc] initWithChanges:changes] autorelease];
  [made enumerateChangesForObserver:observer
                     fromSyncAnchor:[@"v3-1" dataUsingEncoding:NSUTF8StringEncoding]];
  EXPECT_EQ(enumerator->anchor, "v3-1");
  enumerator->changeObserver->didUpdateItems({coreFile("/new")});
  enumerator->changeObserver->didDeleteItems({"/old", "/older"});
  enumerator->changeObserver->finishEnumeratingChanges("v3-2", true);
  enumerator->changeObserver.reset();
  const auto change = changes->only();
  ASSERT_EQ(change.updated.size(), 1u);
  EXPECT_EQ(utf8([change.updated[0].get() filename]), "new");
  EXPECT_EQ(change.deleted, (std::vector<std::string>{"/old", "/older"}));
  EXPECT_EQ(change.anchor, "v3-2");
  EXPECT_TRUE(change.moreComing);
}

TEST_F(EnumeratorTest, AnchorIsPassedOnOrNil) {
  const auto enumerator = std::make_shared<FakeEnumerator>();
  DAVEnumerator* const made = [[[DAVEnumerator alloc] initWithCore:enumerator] autorelease];
  const auto anchors = std::make_shared<Calls<Retained<NSData*>>>();
  for (int i = 0; i < 2; ++i) {
    [made currentSyncAnchorWithCompletionHandler:^(NSData* anchor) {
      anchors->add(Retained<NSData*>(anchor));
    }];
    if (i == 0) {
      enumerator->anchorCompletion("v3-7");
      EXPECT_EQ(bytesOf(anchors->only().get()), "v3-7");
    } else {
      enumerator->anchorCompletion(std::nullopt);
      EXPECT_EQ(anchors->count(), 2u);
    }
  }
  enumerator->anchorCompletion = nullptr;
}

TEST_F(EnumeratorTest, RefusedEnumeratorIsNilWithItsError) {
  core->enumeratorFailure = kestrowan::NSError("NSFileProviderErrorDomain", -1005);
  FileProviderExtension* const made = extension(core);
  NSError* error = nil;
  EXPECT_FALSE([made enumeratorForContainerItemIdentifier:@"/a" request:request() error:&error]);
  EXPECT_EQ(described(error), "NSFileProviderErrorDomain -1005");
  EXPECT_FALSE([made enumeratorForContainerItemIdentifier:@"/a" request:request() error:nullptr]);
}

}  // namespace
