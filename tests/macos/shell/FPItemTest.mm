#include <memory>
#include <string>
#include <vector>

#include "ShellTest.h"
#include "items/FPItem.h"
#include "macos/FPItem.h"
#include "support/Cases.h"

using kestrowan::JSONValue;

namespace {

using namespace kestrowan::test;

FPItem* item(std::string path, bool isDir, std::int64_t size = 12, std::string etag = "abc",
             std::optional<kestrowan::NSDate> modified = kestrowan::NSDate{1700000000.7}) {
  return [[[FPItem alloc] initWithCore:std::make_shared<const kestrowan::FPItem>(
                                           std::move(path), isDir, size, std::move(etag), modified)]
      autorelease];
}

std::string textOf(const Case& one, std::string_view name) {
  return *one.input.member(name)->string();
}

class FPItemTest : public ShellTest {};

TEST_F(FPItemTest, PathsOfItemsFollowTheSharedCases) {
  checkCases("item-paths", "item_paths", [](const Case& one) {
    FPItem* const made = item(textOf(one, "idPath"), false);
    return JSONValue::Object{{"itemIdentifier", utf8([made itemIdentifier])},
                             {"parentItemIdentifier", utf8([made parentItemIdentifier])},
                             {"filename", utf8([made filename])}};
  });
}

TEST_F(FPItemTest, TypesOfItemsFollowTheSharedCases) {
  checkCases("uttype", "content_type", [](const Case& one) {
    FPItem* const made = item(textOf(one, "idPath"), *one.input.member("isDir")->boolean());
    return JSONValue(utf8([[made contentType] identifier]));
  });
}

TEST_F(FPItemTest, TypeOfAFileIsAskedOfThePlatform) {
  EXPECT_EQ(utf8([[item("/Home/a.TXT", false) contentType] identifier]), "public.plain-text");
  EXPECT_EQ(takeAskedExtensions(), std::vector<std::string>{"TXT"});
}

TEST_F(FPItemTest, ThePlatformIsNotAskedForAnEmptyExtension) {
  for (const char* path : {"/Home/archive", "/Home/.hidden", "/Home/a.", "/"}) {
    EXPECT_EQ([item(path, false) contentType], UTTypeData) << path;
  }
  EXPECT_EQ(takeAskedExtensions(), std::vector<std::string>());
}

TEST_F(FPItemTest, FileWithoutAKnownTypeIsData) {
  setTypesUnknown(true);
  EXPECT_EQ([item("/Home/a.txt", false) contentType], UTTypeData);
}

TEST_F(FPItemTest, DirectoryIsAFolderWhateverItsName) {
  EXPECT_EQ([item("/Home/a.zip", true) contentType], UTTypeFolder);
  EXPECT_EQ(takeAskedExtensions(), std::vector<std::string>());
}

TEST_F(FPItemTest, SizeIsANumberForFilesOnly) {
  EXPECT_EQ([[item("/a", false, 5000000000) documentSize] longLongValue], 5000000000);
  EXPECT_EQ([[item("/a", false, -1) documentSize] longLongValue], -1);
  EXPECT_EQ([[item("/a", false, 0) documentSize] longLongValue], 0);
  EXPECT_FALSE([item("/a", true, 7) documentSize]);
}

TEST_F(FPItemTest, DateIsKeptToTheFractionOrAbsent) {
  EXPECT_EQ([[item("/a", false) contentModificationDate] timeIntervalSince1970], 1700000000.7);
  EXPECT_FALSE([item("/a", false, 1, "e", std::nullopt) contentModificationDate]);
}

TEST_F(FPItemTest, BothVersionsAreTheSameBytes) {
  NSFileProviderItemVersion* const version = [item("/a", false) itemVersion];
  EXPECT_EQ(bytesOf([version contentVersion]), "abc|1700000000|12");
  EXPECT_EQ(bytesOf([version metadataVersion]), "abc|1700000000|12");
}

TEST_F(FPItemTest, CapabilitiesAreTheModules) {
  EXPECT_EQ([item("/", true) capabilities], 43u);
  EXPECT_EQ([item("/Home", true) capabilities], 3u);
  EXPECT_EQ([item("/Home/Apps", true) capabilities], 1u);
  EXPECT_EQ([item("/readme.txt", false) capabilities], 43u);
}

TEST_F(FPItemTest, RootHasItsIdentifierAndName) {
  FPItem* const root = item("/", true);
  EXPECT_TRUE([[root itemIdentifier] isEqual:NSFileProviderRootContainerItemIdentifier]);
  EXPECT_TRUE([[root parentItemIdentifier] isEqual:NSFileProviderRootContainerItemIdentifier]);
  EXPECT_EQ(utf8([root filename]), "Kestrowan");
}

TEST_F(FPItemTest, ItemIsGivenUpWithItsObject) {
  auto core = std::make_shared<const kestrowan::FPItem>("/a", false, 1, "e", std::nullopt);
  const std::weak_ptr<const kestrowan::FPItem> watched = core;
  @autoreleasepool {
    FPItem* const made = [[[FPItem alloc] initWithCore:std::move(core)] autorelease];
    EXPECT_EQ(utf8([made filename]), "a");
    EXPECT_FALSE(watched.expired());
  }
  EXPECT_TRUE(watched.expired());
}

}  // namespace
