#include <gmock/gmock.h>

#include "Completions.h"

namespace kestrowan {
namespace {

using test::multistatus;
using test::response;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class FetchContents : public test::RequestFixture {
 protected:
  test::Completion fetched(const std::string& identifier) {
    auto extension = makeExtension();
    test::CompletionWaiter waiter;
    return waiter.wait(extension.fetchContents(identifier, std::nullopt, {}, waiter.forFetch()));
  }
};

TEST_F(FetchContents, DownloadsAndThenAsksForFreshMetadata) {
  configure();
  network_.answer({.status = 200, .body = "contents"});
  network_.answer({.body = multistatus(response("/Home/a.txt",
                                                "<D:getcontentlength>9</D:getcontentlength>"
                                                "<D:getetag>\"x\"</D:getetag>"))});
  const auto fetch = fetched("/Home/a.txt");
  EXPECT_FALSE(fetch.error);
  ASSERT_TRUE(fetch.url);
  EXPECT_EQ(std::filesystem::file_size(fetch.url->path()), 8u);
  EXPECT_TRUE(fetch.url->path().ends_with("-a.txt"));
  EXPECT_EQ(fetch.item->itemVersion().contentVersion, "x|0|9");
  EXPECT_THAT(network_.lines(), ElementsAre("GET /Home/a.txt", "PROPFIND /Home/a.txt"));
}

TEST_F(FetchContents, WithoutAnEntryTheItemDescribesTheLocalFile) {
  configure();
  for (const auto& answer : {test::Answer{.status = 500}, test::Answer{.body = multistatus("")},
                             test::Answer{.error = NSError(NSURLErrorDomain, -1005)}}) {
    network_.answer({.status = 200, .body = "contents"});
    network_.answer(answer);
    const auto fetch = fetched("/a");
    EXPECT_FALSE(fetch.error);
    EXPECT_EQ(fetch.item->itemVersion().contentVersion, "downloaded|0|8");
    EXPECT_EQ(fetch.item->documentSize(), 8);
    EXPECT_EQ(fetch.item->contentModificationDate(), std::nullopt);
  }
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(FetchContents, TheItemIsAFileWhateverTheServerReports) {
  configure();
  network_.answer({.status = 200, .body = ""});
  network_.answer({.body = multistatus(response("/d/", "<D:collection/>"))});
  const auto fetch = fetched("/d/");
  EXPECT_EQ(fetch.item->contentType(), UTType::data());
  EXPECT_EQ(fetch.item->itemIdentifier(), "/d");
}

TEST_F(FetchContents, TheProgressCountsZeroThenAHundred) {
  configure();
  network_.answer({.status = 200, .body = "contents"});
  network_.answer({.body = multistatus(response("/a"))});
  const auto fetch = fetched("/a");
  EXPECT_EQ(fetch.progress->totalUnitCount(), 100);
  EXPECT_EQ(fetch.progress->completedUnitCount(), 100);
}

TEST_F(FetchContents, TheProgressStaysAtZeroUntilEverythingIsDone) {
  configure();
  network_.answer({.status = 200, .body = "contents"});
  network_.answer({.body = multistatus(response("/a"))});
  auto extension = makeExtension();
  std::promise<void> asked;
  std::promise<void> goOn;
  network_.beforeAnswer([&](const test::SentRequest& request) {
    if (!request.line.starts_with("PROPFIND")) return;
    asked.set_value();
    goOn.get_future().wait();
  });
  test::CompletionWaiter waiter;
  const auto progress = extension.fetchContents("/a", std::nullopt, {}, waiter.forFetch());
  asked.get_future().wait();
  EXPECT_EQ(progress->completedUnitCount(), 0);
  goOn.set_value();
  EXPECT_EQ(waiter.wait(progress).progress->completedUnitCount(), 100);
}

TEST_F(FetchContents, AFailureIsLoggedAndLeavesTheProgressAtZero) {
  configure();
  network_.answer({.status = 404});
  const auto fetch = fetched("/a/b");
  EXPECT_TRUE(fetch.error->is(NSFileProviderErrorDomain, -1004));
  EXPECT_FALSE(fetch.url);
  EXPECT_EQ(fetch.item, nullptr);
  EXPECT_EQ(fetch.progress->totalUnitCount(), 100);
  EXPECT_EQ(fetch.progress->completedUnitCount(), 0);
  ASSERT_EQ(log_.lines().size(), 1u);
  EXPECT_EQ(log_.lines()[0], logLine("fetch /a/b failed: " + fetch.error->localizedDescription()));
  EXPECT_THAT(temporaryFiles(), IsEmpty());
  EXPECT_EQ(network_.requests().size(), 1u);
}

TEST_F(FetchContents, OfTheRootIsAnOrdinaryDownload) {
  configure();
  network_.answer({.status = 405});
  EXPECT_TRUE(fetched(root_).error->is(NSFileProviderErrorDomain, -1004));
  EXPECT_THAT(network_.lines(), ElementsAre("GET /"));
}

TEST_F(FetchContents, WithoutAClientIsRefusedWithAPlainProgress) {
  const auto fetch = fetched("/a");
  expectRefused(fetch, notAuthenticated());
  EXPECT_FALSE(fetch.url);
  EXPECT_EQ(fetch.item, nullptr);
  expectPlainProgress(fetch);
}

}  // namespace
}  // namespace kestrowan
