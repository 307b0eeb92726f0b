#include <gmock/gmock.h>

#include "Completions.h"

namespace kestrowan {
namespace {

using test::multistatus;
using test::response;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ItemLookup : public test::RequestFixture {
 protected:
  test::Completion lookedUp(const std::string& identifier) {
    auto extension = makeExtension();
    test::CompletionWaiter waiter;
    return waiter.wait(extension.item(identifier, {}, waiter.forItem()));
  }
};

TEST_F(ItemLookup, OfTheRootSucceedsWithoutAConfiguration) {
  const auto found = lookedUp(root_);
  EXPECT_TRUE(found.synchronous);
  EXPECT_FALSE(found.error);
  ASSERT_TRUE(found.item);
  EXPECT_EQ(found.item->itemIdentifier(), root_);
  EXPECT_EQ(found.item->filename(), "Kestrowan");
  EXPECT_EQ(found.item->contentType(), UTType::folder());
  EXPECT_EQ(found.item->itemVersion().contentVersion, "root|0|0");
  expectPlainProgress(found);
}

TEST_F(ItemLookup, OfTheRootAsksNoServer) {
  configure();
  EXPECT_TRUE(lookedUp(root_).synchronous);
  EXPECT_THAT(network_.requests(), IsEmpty());
}

TEST_F(ItemLookup, WithoutAClientIsRefusedAtOnce) {
  const auto found = lookedUp("/a");
  expectRefused(found, notAuthenticated());
  EXPECT_EQ(found.item, nullptr);
  expectPlainProgress(found);
}

TEST_F(ItemLookup, GivesTheItemThatTheServerReports) {
  configure();
  network_.answer({.body = multistatus(response("/Home/a.txt",
                                                "<D:getcontentlength>5</D:getcontentlength>"
                                                "<D:getetag>\"x\"</D:getetag>"))});
  const auto found = lookedUp("/Home/a.txt/");
  EXPECT_FALSE(found.synchronous);
  EXPECT_FALSE(found.error);
  EXPECT_EQ(found.item->itemIdentifier(), "/Home/a.txt");
  EXPECT_EQ(found.item->itemVersion().contentVersion, "x|0|5");
  EXPECT_THAT(network_.lines(), ElementsAre("PROPFIND /Home/a.txt"));
  expectPlainProgress(found);
}

TEST_F(ItemLookup, OfThePathSlashAsksTheServerUnlikeTheRootIdentifier) {
  configure();
  network_.answer({.body = multistatus(response("/"))});
  EXPECT_EQ(lookedUp("/").item->itemIdentifier(), root_);
  EXPECT_THAT(network_.lines(), ElementsAre("PROPFIND /"));
}

TEST_F(ItemLookup, OfAReplyWithoutAnEntryIsNoSuchItem) {
  configure();
  network_.answer({.body = multistatus("")});
  const auto found = lookedUp("/a");
  EXPECT_EQ(found.item, nullptr);
  EXPECT_TRUE(found.error->is(NSFileProviderErrorDomain, -1005));
  EXPECT_TRUE(found.error->userInfo().empty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(ItemLookup, OfAMissingPathIsTheStatusErrorAndLogsNothing) {
  configure();
  network_.answer({.status = 404});
  const auto found = lookedUp("/a");
  EXPECT_EQ(found.item, nullptr);
  EXPECT_TRUE(found.error->is(NSFileProviderErrorDomain, -1004));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(ItemLookup, PassesATransportErrorOnUnchanged) {
  configure();
  const NSError lost(NSURLErrorDomain, NSURLErrorTimedOut);
  network_.answer({.error = lost});
  EXPECT_TRUE(lookedUp("/a").error->isIdenticalTo(lost));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

}  // namespace
}  // namespace kestrowan
