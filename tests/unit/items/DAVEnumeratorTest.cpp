#include "items/DAVEnumerator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <limits>
#include <thread>

#include "platform/fileprovider/NSFileProviderError.h"
#include "support/Cases.h"
#include "support/Fixture.h"

namespace kestrowan {
namespace {

using test::multistatus;
using test::response;
using ::testing::ElementsAre;

static_assert(!std::is_default_constructible_v<DAVEnumerator>);

/// Records the calls of one listing, in order.
class Observer : public NSFileProviderEnumerationObserver {
 public:
  void didEnumerateItems(std::vector<NSFileProviderItemPtr> items) override {
    calls.push_back("items " + std::to_string(items.size()));
    for (auto& item : items) identifiers.push_back(item->itemIdentifier());
  }
  void finishEnumeratingUpToPage(std::optional<NSFileProviderPage> nextPage) override {
    calls.push_back(nextPage ? "page" : "end");
    ended.set_value();
  }
  void finishEnumeratingWithError(const NSError& failure) override {
    calls.push_back("error");
    error = failure;
    ended.set_value();
  }

  std::vector<std::string> calls;
  std::vector<std::string> identifiers;
  std::optional<NSError> error;
  std::promise<void> ended;
};

class DAVEnumeratorTest : public test::ExtensionFixture {
 protected:
  std::shared_ptr<DAVEnumerator> enumerator(const std::string& container) const {
    return std::make_shared<DAVEnumerator>(
        container, WebDAVClient::make(FPBridge::Config{8443, "u", "p", ""}, std::nullopt));
  }

  static std::shared_ptr<Observer> listed(const std::shared_ptr<DAVEnumerator>& enumerator,
                                          const NSFileProviderPage& page = "") {
    auto observer = std::make_shared<Observer>();
    enumerator->enumerateItems(observer, page);
    observer->ended.get_future().wait();
    return observer;
  }
};

TEST_F(DAVEnumeratorTest, HandsOverOnePageOfAllItemsInTheServersOrder) {
  network_.answer(
      {.body = multistatus(response("/Home/") + response("/Home/z") + response("/Home/a/"))});
  const auto observer = listed(enumerator("/Home"));
  EXPECT_THAT(observer->calls, ElementsAre("items 2", "end"));
  EXPECT_THAT(observer->identifiers, ElementsAre("/Home/z", "/Home/a"));
}

TEST_F(DAVEnumeratorTest, AnEmptyFolderIsOneEmptyPage) {
  network_.answer({.body = multistatus(response("/Home/"))});
  EXPECT_THAT(listed(enumerator("/Home/"))->calls, ElementsAre("items 0", "end"));
}

TEST_F(DAVEnumeratorTest, WhateverThePageTheListingIsWhole) {
  for (int i = 0; i < 3; ++i) network_.answer({.body = multistatus(response("/a"))});
  const auto root = enumerator(std::string(NSFileProviderRootContainerItemIdentifier));
  for (const auto page : {"", "never issued", "NSFileProviderInitialPageSortedByName"}) {
    EXPECT_THAT(listed(root, page)->identifiers, ElementsAre("/a"));
  }
  EXPECT_THAT(network_.lines(), ElementsAre("PROPFIND /", "PROPFIND /", "PROPFIND /"));
}

TEST_F(DAVEnumeratorTest, WithoutAClientTheListingFailsAtOnce) {
  const auto unconfigured = std::make_shared<DAVEnumerator>("/Home", nullptr);
  auto observer = std::make_shared<Observer>();
  unconfigured->enumerateItems(observer, "");
  EXPECT_THAT(observer->calls, ElementsAre("error"));
  EXPECT_TRUE(observer->error->is(NSFileProviderErrorDomain, -1000));
  EXPECT_TRUE(observer->error->userInfo().empty());
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(DAVEnumeratorTest, AFailureIsLoggedAndHandedOnAsItIs) {
  const NSError refused(NSURLErrorDomain, NSURLErrorCannotConnectToHost);
  network_.answer({.error = refused});
  const auto observer = listed(enumerator("/Home/Docs/"));
  EXPECT_THAT(observer->calls, ElementsAre("error"));
  EXPECT_TRUE(observer->error->isIdenticalTo(refused));
  EXPECT_THAT(log_.lines(),
              ElementsAre("com.kestrowan.app.FileProvider:ext enumerate /Home/Docs failed: Could "
                          "not connect to the server."));
}

TEST_F(DAVEnumeratorTest, TheWorkingSetAndTheTrashAreListedLikeAnyPath) {
  for (const auto identifier : {NSFileProviderWorkingSetContainerItemIdentifier,
                                NSFileProviderTrashContainerItemIdentifier}) {
    network_.answer({.body = multistatus(response("/") + response("/Home/"))});
    const auto observer = listed(enumerator(std::string(identifier)));
    EXPECT_THAT(observer->identifiers,
                ElementsAre(NSFileProviderRootContainerItemIdentifier, "/Home"));
  }
}

TEST_F(DAVEnumeratorTest, AListingGoesOnWhenItsEnumeratorIsInvalidatedAndReleased) {
  network_.answer({.body = multistatus(response("/a"))});
  auto released = enumerator("/");
  auto observer = std::make_shared<Observer>();
  released->enumerateItems(observer, "");
  released->invalidate();
  released.reset();
  observer->ended.get_future().wait();
  EXPECT_THAT(observer->calls, ElementsAre("items 1", "end"));
}

class Changes : public NSFileProviderChangeObserver {
 public:
  void didUpdateItems(std::vector<NSFileProviderItemPtr>) override { ADD_FAILURE(); }
  void didDeleteItems(std::vector<NSFileProviderItemIdentifier>) override { ADD_FAILURE(); }
  void finishEnumeratingChanges(NSFileProviderSyncAnchor, bool) override { ADD_FAILURE(); }
  void finishEnumeratingWithError(const NSError& error) override { errors.push_back(error); }

  std::vector<NSError> errors;
};

TEST_F(DAVEnumeratorTest, EveryAnchorHasExpired) {
  const auto root = enumerator("/");
  const auto changes = std::make_shared<Changes>();
  for (const auto anchor : {"", "v3-1", "v3-99999999999", "garbage"}) {
    root->enumerateChanges(changes, anchor);
  }
  ASSERT_EQ(changes->errors.size(), 4u);
  for (const auto& error : changes->errors) {
    EXPECT_TRUE(error.is(NSFileProviderErrorDomain, -1002));
    EXPECT_TRUE(error.userInfo().empty());
  }
  EXPECT_TRUE(network_.requests().empty());
}

TEST_F(DAVEnumeratorTest, TheCurrentAnchorIsGivenAtOnce) {
  std::vector<std::string> anchors;
  const auto before = DAVEnumerator::syncAnchor(NSDate::now());
  enumerator("/")->currentSyncAnchor(
      [&](std::optional<NSFileProviderSyncAnchor> anchor) { anchors.push_back(*anchor); });
  const auto after = DAVEnumerator::syncAnchor(NSDate::now());
  ASSERT_EQ(anchors.size(), 1u);
  EXPECT_TRUE(anchors[0] == before || anchors[0] == after) << anchors[0];
}

TEST(DAVEnumeratorAnchor, AnswersEveryKnownCase) {
  test::checkCases("double-to-int", "anchor_text", [](const test::Case& one) {
    const double seconds = one.input.number() != nullptr
                               ? *one.input.number()
                               : static_cast<double>(*one.input.integer());
    return JSONValue(DAVEnumerator::syncAnchor(NSDate{seconds}));
  });
}

TEST(DAVEnumeratorAnchor, ChangesEveryThirtySeconds) {
  EXPECT_EQ(DAVEnumerator::syncAnchor(NSDate{1700000000}), "v3-56666666");
  EXPECT_EQ(DAVEnumerator::syncAnchor(NSDate{60}), DAVEnumerator::syncAnchor(NSDate{89.999}));
  EXPECT_NE(DAVEnumerator::syncAnchor(NSDate{60}), DAVEnumerator::syncAnchor(NSDate{90}));
}

TEST(DAVEnumeratorAnchorDeathTest, ATimeOutOfRangeIsFatal) {
  EXPECT_DEATH(DAVEnumerator::syncAnchor(NSDate{std::numeric_limits<double>::infinity()}),
               "outside the range");
  EXPECT_DEATH(DAVEnumerator::syncAnchor(NSDate{1e300}), "outside the range");
}

}  // namespace
}  // namespace kestrowan
