#include <gmock/gmock.h>

#include "Completions.h"
#include "support/Cases.h"

namespace kestrowan {
namespace {

namespace Field = NSFileProviderItemField;

using test::multistatus;
using test::response;
using test::Template;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ModifyItem : public test::RequestFixture {
 protected:
  test::Completion modified(NSFileProviderItemPtr item, NSFileProviderItemFields fields,
                            std::optional<NSURL> contents = std::nullopt) {
    auto extension = makeExtension();
    test::CompletionWaiter waiter;
    return waiter.wait(extension.modifyItem(std::move(item), {}, fields, std::move(contents), 0, {},
                                            waiter.forWrite()));
  }
  test::Completion modified(const Template& item, NSFileProviderItemFields fields,
                            std::optional<NSURL> contents = std::nullopt) {
    return modified(std::make_shared<const Template>(item), fields, std::move(contents));
  }

  void expectDone(const test::Completion& completion) {
    EXPECT_FALSE(completion.error);
    EXPECT_FALSE(completion.synchronous);
    EXPECT_EQ(completion.remainingFields, 0u);
    EXPECT_FALSE(completion.shouldFetchContent);
    expectPlainProgress(completion);
  }
};

TEST_F(ModifyItem, RenamesThenUploadsToTheNewPlaceThenAsks) {
  configure();
  network_.answer({.status = 201});
  network_.answer({.status = 204});
  network_.answer({.body = multistatus(response("/Home/b", "<D:getetag>\"y\"</D:getetag>"))});
  const auto result =
      modified({"/Home/a", "/Home", "b"}, Field::filename | Field::contents, localFile("new"));
  expectDone(result);
  EXPECT_EQ(result.item->itemIdentifier(), "/Home/b");
  EXPECT_EQ(result.item->itemVersion().contentVersion, "y|0|0");
  EXPECT_THAT(network_.lines(), ElementsAre("MOVE /Home/a", "PUT /Home/b", "PROPFIND /Home/b"));
  EXPECT_THAT(network_.requests()[0].headers,
              ElementsAre("Destination: https://127.0.0.1:8443/Home/b", "Overwrite: F"));
}

TEST_F(ModifyItem, AChangeOfParentAloneMoves) {
  configure();
  network_.answer({.status = 201});
  network_.answer({.body = multistatus(response("/b/a"))});
  expectDone(modified({"/a", "/b", "a"}, Field::parentItemIdentifier));
  EXPECT_THAT(network_.lines(), ElementsAre("MOVE /a", "PROPFIND /b/a"));
}

TEST_F(ModifyItem, ANewPlaceThatIsNoChangedFieldIsIgnored) {
  configure();
  network_.answer({.body = multistatus(response("/a"))});
  const auto result = modified({"/a", "/b", "c"}, Field::tagData);
  expectDone(result);
  EXPECT_EQ(result.item->itemIdentifier(), "/a");
  EXPECT_THAT(network_.lines(), ElementsAre("PROPFIND /a"));
}

TEST_F(ModifyItem, OtherFieldsAreTakenAsAppliedWithALookupOnly) {
  configure();
  for (const auto field :
       {Field::lastUsedDate, Field::tagData, Field::favoriteRank, Field::creationDate,
        Field::contentModificationDate, Field::fileSystemFlags, Field::extendedAttributes,
        Field::typeAndCreator}) {
    network_.answer({.body = multistatus(response("/a"))});
    expectDone(modified({"/a", root_, "a"}, field, localFile("x")));
  }
  for (const auto& line : network_.lines()) EXPECT_EQ(line, "PROPFIND /a");
}

TEST_F(ModifyItem, ARenameToTheSameNameSendsNoMove) {
  configure();
  network_.answer({.body = multistatus(response("/a"))});
  expectDone(modified({"/a/", root_, "a"}, Field::filename | Field::parentItemIdentifier));
  EXPECT_THAT(network_.lines(), ElementsAre("PROPFIND /a"));
}

TEST_F(ModifyItem, AnswersEveryKnownCaseOfSendingAMove) {
  configure();
  test::checkCases("string-equality", "modify_sends_move", [this](const test::Case& one) {
    const auto before = network_.requests().size();
    const auto target = *one.input.member("target")->string();
    network_.answer({.status = 500});
    modified({*one.input.member("current")->string(), "/Home", target.substr(6)}, Field::filename);
    return JSONValue(network_.lines().at(before).starts_with("MOVE"));
  });
}

TEST_F(ModifyItem, ContentsWithoutAFileAreIgnored) {
  configure();
  network_.answer({.body = multistatus(response("/a"))});
  expectDone(modified({"/a", root_, "a"}, Field::contents));
  EXPECT_THAT(network_.lines(), ElementsAre("PROPFIND /a"));
}

TEST_F(ModifyItem, FoldersNeverUpload) {
  configure();
  network_.answer({.body = multistatus(response("/d"))});
  const auto result =
      modified({"/d", root_, "d", UTType::folder()}, Field::contents, localFile("x"));
  expectDone(result);
  EXPECT_EQ(result.item->contentType(), UTType::folder());
  EXPECT_THAT(network_.lines(), ElementsAre("PROPFIND /d"));
}

TEST_F(ModifyItem, WithoutAnEntryTheItemIsModified) {
  configure();
  network_.answer({.status = 204});
  network_.answer({.body = multistatus("")});
  const auto result = modified({"/a", root_, "a"}, Field::contents, localFile("text"));
  EXPECT_EQ(result.item->itemVersion().contentVersion, "modified|0|0");
  EXPECT_EQ(result.item->documentSize(), 0);
}

TEST_F(ModifyItem, WithoutAClientTheVeryItemIsHandedBack) {
  const auto item = std::make_shared<const Template>("/Home/Apps", root_, "..");
  const auto result = modified(item, Field::filename);
  expectRefused(result, notAuthenticated());
  EXPECT_EQ(result.item, item);
  EXPECT_EQ(result.remainingFields, 0u);
  EXPECT_FALSE(result.shouldFetchContent);
  expectPlainProgress(result);
}

TEST_F(ModifyItem, MovingIntoOrOutOfAProtectedFolderIsRefused) {
  configure();
  for (const auto& item :
       {Template("/Home/Apps/a", "/Home", "a"), Template("/Home/a", "/Home/Apps", "a"),
        Template("/Home/a", "/Home", ".a"), Template("/Home/Apps/a", "/Home/Apps", "..")}) {
    const auto result = modified(item, 0);
    expectRefused(result, FileProviderExtension::permDenied());
    EXPECT_TRUE(result.error->isIdenticalTo(FileProviderExtension::permDenied()));
    EXPECT_EQ(result.item, nullptr);
    expectPlainProgress(result);
  }
  EXPECT_THAT(network_.requests(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(ModifyItem, InvalidNamesAreRefused) {
  configure();
  for (const auto name : {"", ".", "..", "a/b"}) {
    expectRefused(modified({"/Home/a", "/Home", name}, Field::tagData),
                  FileProviderExtension::permDenied());
  }
  EXPECT_THAT(network_.requests(), IsEmpty());
}

TEST_F(ModifyItem, AMoveOntoAnExistingNameFailsAndStopsThere) {
  configure();
  network_.answer({.status = 412});
  const auto result =
      modified({"/a", root_, "b"}, Field::filename | Field::contents, localFile("x"));
  EXPECT_TRUE(result.error->is(NSCocoaErrorDomain, 516));
  EXPECT_EQ(result.item, nullptr);
  EXPECT_THAT(network_.lines(), ElementsAre("MOVE /a"));
  EXPECT_THAT(log_.lines(),
              ElementsAre(logLine("modifyItem /a failed: The file couldn’t be saved because a "
                                  "file with the same name already exists.")));
}

TEST_F(ModifyItem, AMoveIsNotUndoneWhenTheUploadFails) {
  configure();
  network_.answer({.status = 201});
  network_.answer({.status = 423});
  const auto result =
      modified({"/a", root_, "b"}, Field::filename | Field::contents, localFile("x"));
  EXPECT_TRUE(result.error->is(NSFileProviderErrorDomain, -1004));
  EXPECT_THAT(network_.lines(), ElementsAre("MOVE /a", "PUT /b"));
  EXPECT_THAT(log_.lines(), ElementsAre(logLine("modifyItem /b failed: " +
                                                result.error->localizedDescription())));
}

TEST_F(ModifyItem, AFailingLookupFailsTheModification) {
  configure();
  const NSError lost(NSURLErrorDomain, NSURLErrorNetworkConnectionLost);
  network_.answer({.error = lost});
  const auto result = modified({"/a", root_, "a"}, Field::tagData);
  EXPECT_TRUE(result.error->isIdenticalTo(lost));
  EXPECT_EQ(result.item, nullptr);
}

}  // namespace
}  // namespace kestrowan
