#include <gmock/gmock.h>

#include "Completions.h"

namespace kestrowan {
namespace {

using test::multistatus;
using test::response;
using test::Template;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CreateItem : public test::RequestFixture {
 protected:
  test::Completion created(const Template& like, std::optional<NSURL> contents = std::nullopt) {
    auto extension = makeExtension();
    test::CompletionWaiter waiter;
    return waiter.wait(extension.createItem(std::make_shared<const Template>(like), 0,
                                            std::move(contents), 0, {}, waiter.forWrite()));
  }

  void expectDone(const test::Completion& completion) {
    EXPECT_FALSE(completion.error);
    EXPECT_FALSE(completion.synchronous);
    EXPECT_EQ(completion.remainingFields, 0u);
    EXPECT_FALSE(completion.shouldFetchContent);
    expectPlainProgress(completion);
  }

  void expectNothingDone(const test::Completion& completion) {
    EXPECT_EQ(completion.item, nullptr);
    EXPECT_EQ(completion.remainingFields, 0u);
    EXPECT_FALSE(completion.shouldFetchContent);
    expectPlainProgress(completion);
  }
};

TEST_F(CreateItem, UploadsAFileAndReportsWhatTheServerMadeOfIt) {
  configure();
  network_.answer({.status = 201});
  network_.answer({.body = multistatus(response("/Home/a.txt",
                                                "<D:getcontentlength>4</D:getcontentlength>"
                                                "<D:getetag>\"x\"</D:getetag>"))});
  const auto result = created({"", "/Home", "a.txt"}, localFile("text"));
  expectDone(result);
  EXPECT_EQ(result.item->itemIdentifier(), "/Home/a.txt");
  EXPECT_EQ(result.item->itemVersion().contentVersion, "x|0|4");
  EXPECT_THAT(network_.lines(), ElementsAre("PUT /Home/a.txt", "PROPFIND /Home/a.txt"));
  EXPECT_EQ(network_.requests()[0].body, "text");
}

TEST_F(CreateItem, WithoutContentsUploadsAnEmptyScratchFile) {
  configure();
  network_.answer({.status = 201});
  network_.answer({.body = multistatus(response("/a"))});
  expectDone(created({"", root_, "a", UTType("public.plain-text")}));
  EXPECT_EQ(network_.requests()[0].body, "");
  EXPECT_EQ(temporaryFiles().size(), 1u);
}

TEST_F(CreateItem, MakesAFolderWithMKCOLAndIgnoresContents) {
  configure();
  network_.answer({.status = 201});
  network_.answer({.body = multistatus(response("/Home/d"))});
  const auto result = created({"", "/Home", "d", UTType::folder()}, localFile("text"));
  expectDone(result);
  EXPECT_EQ(result.item->contentType(), UTType::folder());
  EXPECT_THAT(network_.lines(), ElementsAre("MKCOL /Home/d", "PROPFIND /Home/d"));
  EXPECT_THAT(temporaryFiles(), ElementsAre("local"));
}

TEST_F(CreateItem, OnlyTheFolderTypeItselfMakesAFolder) {
  configure();
  for (const auto type : {"com.apple.package", "public.directory", "com.apple.bundle"}) {
    network_.answer({.status = 201});
    network_.answer({.body = multistatus(response("/p", "<D:collection/>"))});
    const auto result = created({"", root_, "p", UTType(type)}, localFile("x"));
    EXPECT_EQ(result.item->contentType(), UTType::data()) << type;
  }
  EXPECT_EQ(network_.lines()[0], "PUT /p");
}

TEST_F(CreateItem, WithoutAnEntryTheItemIsNew) {
  configure();
  network_.answer({.status = 201});
  network_.answer({.body = multistatus("")});
  const auto result = created({"", root_, "a"}, localFile("text"));
  expectDone(result);
  EXPECT_EQ(result.item->itemVersion().contentVersion, "new|0|0");
  EXPECT_EQ(result.item->documentSize(), 0);
  EXPECT_EQ(result.item->contentModificationDate(), std::nullopt);
}

TEST_F(CreateItem, WithoutAClientIsRefusedBeforeItsNameIsLookedAt) {
  const auto result = created({"", root_, ".."});
  expectRefused(result, notAuthenticated());
  expectNothingDone(result);
}

TEST_F(CreateItem, InvalidNamesAreRefusedAtOnce) {
  configure();
  for (const auto name : {"", ".", "..", "a/b"}) {
    const auto result = created({"", "/Home", name});
    expectRefused(result, FileProviderExtension::permDenied());
    EXPECT_TRUE(result.error->isIdenticalTo(FileProviderExtension::permDenied()));
    expectNothingDone(result);
  }
  EXPECT_THAT(network_.requests(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(CreateItem, ProtectedTargetsAreRefusedAtOnce) {
  configure();
  for (const auto& like : {Template("", "/Home", ".hidden"), Template("", "/Home/Apps", "a"),
                           Template("", "/Home/", "Caches", UTType::folder())}) {
    const auto result = created(like);
    expectRefused(result, FileProviderExtension::permDenied());
    EXPECT_TRUE(result.error->isIdenticalTo(FileProviderExtension::permDenied()));
    expectNothingDone(result);
  }
  EXPECT_THAT(network_.requests(), IsEmpty());
}

TEST_F(CreateItem, AFailingUploadIsLoggedAndAsksNothingMore) {
  configure();
  network_.answer({.status = 507});
  const auto result = created({"", root_, "a"}, localFile("text"));
  EXPECT_TRUE(result.error->is(NSFileProviderErrorDomain, -1004));
  expectNothingDone(result);
  EXPECT_THAT(log_.lines(), ElementsAre(logLine("createItem /a failed: " +
                                                result.error->localizedDescription())));
  EXPECT_EQ(network_.requests().size(), 1u);
}

TEST_F(CreateItem, AFailingLookupAfterTheUploadFailsTheCreation) {
  configure();
  network_.answer({.status = 201});
  network_.answer({.status = 401});
  const auto result = created({"", root_, "a", UTType::folder()});
  EXPECT_TRUE(result.error->is(NSFileProviderErrorDomain, -1000));
  expectNothingDone(result);
  EXPECT_EQ(log_.lines().size(), 1u);
}

TEST_F(CreateItem, AScratchFileThatCannotBeMadeFailsTheUpload) {
  configure();
  std::filesystem::remove(temporary());
  const auto result = created({"", root_, "a"});
  EXPECT_TRUE(result.error->is(NSURLErrorDomain, NSURLErrorFileDoesNotExist));
  EXPECT_EQ(log_.lines().size(), 1u);
}

}  // namespace
}  // namespace kestrowan
