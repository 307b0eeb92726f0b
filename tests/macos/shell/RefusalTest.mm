#include <memory>
#include <string>

#include "ShellTest.h"
#include "bridge/FPBridge.h"

namespace {

using namespace kestrowan::test;

constexpr const char* kNotAuthenticated = "NSFileProviderErrorDomain -1000";
constexpr const char* kNotPermitted = "NSPOSIXErrorDomain 1";

/// The module itself, behind a container without a bridge file.
class UnconfiguredTest : public ShellTest {};

TEST_F(UnconfiguredTest, MissingBridgeFileIsLoggedOnce) {
  extension();
  EXPECT_EQ(takeLogMessages(),
            (std::vector<LogMessage>{{"com.kestrowan.app.FileProvider",
                                      "ext",
                                      "no WebDAV config in app group — host serve not up?",
                                      {}}}));
  EXPECT_EQ(askedGroups(),
            (std::vector<std::string>{std::string(kestrowan::FPBridge::kGroupIdentifier)}));
}

TEST_F(UnconfiguredTest, MissingContainerIsLoggedOnce) {
  setGroupContainer({});
  extension();
  EXPECT_EQ(takeLogMessages().size(), 1u);
}

TEST_F(UnconfiguredTest, ContainerThatDoesNotExistIsLoggedOnce) {
  setGroupContainer(container() + "/gone");
  extension();
  EXPECT_EQ(takeLogMessages().size(), 1u);
}

TEST_F(UnconfiguredTest, RootIsStillLookedUpAtOnce) {
  const auto calls = std::make_shared<Calls<ItemCall>>();
  NSProgress* const progress =
      look(extension(), "NSFileProviderRootContainerItemIdentifier", calls);
  ASSERT_EQ(calls->count(), 1u);
  const auto call = calls->only();
  EXPECT_FALSE(call.error.get());
  EXPECT_EQ(utf8([call.item.get() filename]), "Kestrowan");
  EXPECT_EQ([call.item.get() contentType], UTTypeFolder);
  EXPECT_EQ(bytesOf([[call.item.get() itemVersion] contentVersion]), "root|0|0");
  EXPECT_EQ([progress totalUnitCount], 0);
}

TEST_F(UnconfiguredTest, EveryOtherRequestIsRefusedAtOnce) {
  FileProviderExtension* const made = extension();
  const auto items = std::make_shared<Calls<ItemCall>>();
  EXPECT_TRUE(look(made, "/Home", items));
  ASSERT_EQ(items->count(), 1u);
  EXPECT_EQ(described(items->only().error), kNotAuthenticated);
  EXPECT_FALSE(items->only().item.get());

  const auto fetches = std::make_shared<Calls<FetchCall>>();
  NSProgress* const fetching = fetch(made, "/Home/a", fetches);
  ASSERT_EQ(fetches->count(), 1u);
  EXPECT_EQ(described(fetches->only().error), kNotAuthenticated);
  EXPECT_FALSE(fetches->only().url.get());
  EXPECT_EQ([fetching totalUnitCount], 0);

  const auto creations = std::make_shared<Calls<WriteCall>>();
  EXPECT_TRUE(create(made, plain("/t", "/Home", ""), nil, creations));
  ASSERT_EQ(creations->count(), 1u);
  EXPECT_EQ(described(creations->only().error), kNotAuthenticated);
  EXPECT_FALSE(creations->only().item.get());
  EXPECT_EQ(creations->only().remainingFields, 0u);
  EXPECT_FALSE(creations->only().shouldFetchContent);

  const auto deletions = std::make_shared<Calls<DeleteCall>>();
  EXPECT_TRUE(remove(made, "/Home/Apps", deletions));
  ASSERT_EQ(deletions->count(), 1u);
  EXPECT_EQ(described(deletions->only().error), kNotAuthenticated);
  EXPECT_EQ([[deletions->only().error.get() userInfo] count], 0u);
}

TEST_F(UnconfiguredTest, ModificationHandsTheVeryItemBack) {
  PlainTemplate* const item = plain("/Home/a", "/Home", "b");
  const auto calls = std::make_shared<Calls<WriteCall>>();
  EXPECT_TRUE(modify(extension(), item, 3, nil, calls));
  ASSERT_EQ(calls->count(), 1u);
  EXPECT_EQ(calls->only().item.get(), item);
  EXPECT_EQ(described(calls->only().error), kNotAuthenticated);
  EXPECT_EQ(calls->only().remainingFields, 0u);
  EXPECT_FALSE(calls->only().shouldFetchContent);
}

TEST_F(UnconfiguredTest, EnumeratorIsGivenAndFailsItsListingAtOnce) {
  for (const char* identifier : {"NSFileProviderRootContainerItemIdentifier",
                                 "NSFileProviderWorkingSetContainerItemIdentifier",
                                 "NSFileProviderTrashContainerItemIdentifier", "/Home"}) {
    const auto listings = std::make_shared<Calls<Listing>>();
    list(extension(), identifier, listings);
    ASSERT_EQ(listings->count(), 1u) << identifier;
    EXPECT_EQ(described(listings->only().error), kNotAuthenticated);
    EXPECT_EQ(listings->only().batches.size(), 0u);
  }
}

TEST_F(UnconfiguredTest, ChangesAreRefusedWithAnExpiredAnchor) {
  id<NSFileProviderEnumerator> enumerator =
      [extension() enumeratorForContainerItemIdentifier:@"/Home" request:request() error:nullptr];
  const auto changes = std::make_shared<Calls<Changes>>();
  [enumerator
      enumerateChangesForObserver:[[[TestObserver alloc] initWithChanges:changes] autorelease]
                   fromSyncAnchor:[NSData data]];
  ASSERT_EQ(changes->count(), 1u);
  EXPECT_EQ(described(changes->only().error), "NSFileProviderErrorDomain -1002");
}

TEST_F(UnconfiguredTest, AnchorNamesHalfAMinute) {
  id<NSFileProviderEnumerator> enumerator =
      [extension() enumeratorForContainerItemIdentifier:@"/Home" request:request() error:nullptr];
  const auto anchors = std::make_shared<Calls<Retained<NSData*>>>();
  const auto earliest = static_cast<long>([[NSDate date] timeIntervalSince1970]) / 30;
  [enumerator currentSyncAnchorWithCompletionHandler:^(NSData* anchor) {
    anchors->add(Retained<NSData*>(anchor));
  }];
  const auto latest = static_cast<long>([[NSDate date] timeIntervalSince1970]) / 30;
  ASSERT_EQ(anchors->count(), 1u);
  const auto anchor = bytesOf(anchors->only().get());
  ASSERT_EQ(anchor.substr(0, 3), "v3-");
  const long slot = std::stol(anchor.substr(3));
  EXPECT_GE(slot, earliest);
  EXPECT_LE(slot, latest);
}

TEST_F(UnconfiguredTest, InvalidationChangesNothing) {
  FileProviderExtension* const made = extension();
  [made invalidate];
  const auto calls = std::make_shared<Calls<ItemCall>>();
  look(made, "NSFileProviderRootContainerItemIdentifier", calls);
  EXPECT_EQ(utf8([calls->only().item.get() filename]), "Kestrowan");
}

/// The module itself, configured for a server that is not there.
class RefusalTest : public ShellTest {
 protected:
  RefusalTest() { writeBridge(1, "no certificate"); }
};

TEST_F(RefusalTest, ProtectedPathsAndInvalidNamesAreRefusedAtOnceWithOneObject) {
  FileProviderExtension* const made = extension();
  EXPECT_EQ(takeLogMessages().size(), 0u);
  std::vector<Retained<NSError*>> refusals;
  for (const auto& [parent, name] :
       std::vector<std::pair<std::string, std::string>>{{"/Home", ""},
                                                        {"/Home", "."},
                                                        {"/Home", ".."},
                                                        {"/Home", "a/b"},
                                                        {"/Home", "Apps"},
                                                        {"/Home/.x", "a"}}) {
    const auto creations = std::make_shared<Calls<WriteCall>>();
    NSProgress* const progress = create(made, plain("/t", parent, name), nil, creations);
    ASSERT_EQ(creations->count(), 1u) << name;
    EXPECT_EQ([progress totalUnitCount], 0);
    EXPECT_EQ(creations->thread(), std::this_thread::get_id());
    EXPECT_FALSE(creations->only().item.get());
    refusals.push_back(creations->only().error);
    const auto modifications = std::make_shared<Calls<WriteCall>>();
    modify(made, plain("/Home/old", parent, name), 2, nil, modifications);
    ASSERT_EQ(modifications->count(), 1u) << name;
    EXPECT_FALSE(modifications->only().item.get());
    refusals.push_back(modifications->only().error);
  }
  const auto deletions = std::make_shared<Calls<DeleteCall>>();
  remove(made, "/Home/Caches/x", deletions);
  ASSERT_EQ(deletions->count(), 1u);
  refusals.push_back(deletions->only().error);
  for (const auto& refusal : refusals) {
    EXPECT_EQ(refusal.get(), refusals.front().get());
    EXPECT_EQ(described(refusal), kNotPermitted);
  }
  EXPECT_EQ(takeLogMessages().size(), 0u);
  EXPECT_EQ(temporaryFiles().size(), 0u);
}

TEST_F(RefusalTest, OtherRequestsReachForTheServerAndFailLater) {
  const auto calls = std::make_shared<Calls<FetchCall>>();
  NSProgress* const progress = fetch(extension(), "/Home/a", calls);
  const auto call = calls->only();
  EXPECT_EQ(described(call.error), "NSURLErrorDomain -1004");
  EXPECT_EQ([progress totalUnitCount], 100);
  EXPECT_EQ([progress completedUnitCount], 0);
  const auto messages = takeLogMessages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].format, "fetch %{public}s failed: %{public}s");
  EXPECT_EQ(messages[0].arguments,
            (std::vector<std::string>{"/Home/a", utf8([call.error.get() localizedDescription])}));
}

}  // namespace
