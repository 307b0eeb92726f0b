#include "items/FPItem.h"

#include <gtest/gtest.h>

#include <limits>

#include "support/Cases.h"
#include "webdav/WebDAVClient.h"

namespace kestrowan {
namespace {

static_assert(!std::is_default_constructible_v<FPItem>);

FPItem file(std::string path) {
  return FPItem(std::move(path), false, 0, "e", std::nullopt);
}
FPItem folder(std::string path) {
  return FPItem(std::move(path), true, 0, "e", std::nullopt);
}

TEST(FPItem, AnswersEveryKnownCaseOfPaths) {
  test::checkCases("item-paths", "item_paths", [](const test::Case& one) {
    const FPItem item = file(*one.input.member("idPath")->string());
    return JSONValue(JSONValue::Object{{"itemIdentifier", item.itemIdentifier()},
                                       {"parentItemIdentifier", item.parentItemIdentifier()},
                                       {"filename", item.filename()}});
  });
}

TEST(FPItem, AnswersEveryKnownCaseOfProtection) {
  test::checkCases("item-paths", "is_home_protected", [](const test::Case& one) {
    return JSONValue(FPItem::isHomeProtected(one.bytes));
  });
}

TEST(FPItem, AnswersEveryKnownCaseOfTypes) {
  test::checkCases("uttype", "content_type", [](const test::Case& one) {
    const FPItem item(*one.input.member("idPath")->string(), *one.input.member("isDir")->boolean(),
                      0, "e", std::nullopt);
    return JSONValue(item.contentType()->identifier());
  });
}

TEST(FPItem, AnswersEveryKnownCaseOfVersions) {
  test::checkCases("double-to-int", "item_version", [](const test::Case& one) {
    const JSONValue* modified = one.input.member("modified");
    std::optional<NSDate> date;
    if (modified->number() != nullptr) date = NSDate{*modified->number()};
    if (modified->integer() != nullptr) date = NSDate{static_cast<double>(*modified->integer())};
    const FPItem item("/a", false, *one.input.member("size")->integer(),
                      *one.input.member("etag")->string(), date);
    return JSONValue(item.itemVersion().contentVersion);
  });
}

TEST(FPItem, TheRootHasTheRootIdentifierAndAFixedName) {
  const FPItem root = folder("/");
  EXPECT_EQ(root.itemIdentifier(), NSFileProviderRootContainerItemIdentifier);
  EXPECT_EQ(root.parentItemIdentifier(), NSFileProviderRootContainerItemIdentifier);
  EXPECT_EQ(root.filename(), "Kestrowan");
  EXPECT_EQ(root.capabilities(), 43u);
}

TEST(FPItem, TheParentOfATopLevelItemIsTheRoot) {
  EXPECT_EQ(file("/x.txt").parentItemIdentifier(), NSFileProviderRootContainerItemIdentifier);
  EXPECT_EQ(file("/Home/x.txt").parentItemIdentifier(), "/Home");
  EXPECT_EQ(file("x").parentItemIdentifier(), NSFileProviderRootContainerItemIdentifier);
}

TEST(FPItem, IsBuiltFromAnEntryByItsPathNotItsName) {
  const auto item = FPItem::make(WebDAVEntry{"/Home/a.txt//", "other", false, 7, "x", NSDate{1.9}});
  EXPECT_EQ(item->itemIdentifier(), "/Home/a.txt");
  EXPECT_EQ(item->filename(), "a.txt");
  EXPECT_EQ(item->documentSize(), 7);
  EXPECT_EQ(item->contentModificationDate(), NSDate{1.9});
  EXPECT_EQ(item->itemVersion(), (NSFileProviderItemVersion{"x|1|7", "x|1|7"}));
}

TEST(FPItem, IdentifiersAndPathsMapBothWays) {
  EXPECT_EQ(FPItem::path(NSFileProviderItemIdentifier(NSFileProviderRootContainerItemIdentifier)),
            "/");
  EXPECT_EQ(FPItem::path("/Home/"), "/Home");
  EXPECT_EQ(FPItem::path(""), "/");
  EXPECT_EQ(FPItem::path("NSFileProviderTrashContainerItemIdentifier"),
            "NSFileProviderTrashContainerItemIdentifier");
}

TEST(FPItem, ProtectedItemsCanOnlyBeRead) {
  for (const auto path : {"/Home/.Trash/a", "/Home/Caches", "/Home/Apps/x/y.txt", "/Home/.x"}) {
    EXPECT_EQ(file(path).capabilities(), 1u) << path;
    EXPECT_EQ(folder(path).capabilities(), 1u) << path;
  }
}

TEST(FPItem, TopLevelFoldersCanBeListedAndFilledOnly) {
  EXPECT_EQ(folder("/Home").capabilities(), 3u);
  EXPECT_EQ(file("/readme.txt").capabilities(), 43u);
  EXPECT_EQ(file("/x.txt").capabilities(), 43u);
}

TEST(FPItem, EverythingElseCanBeReadWrittenRenamedAndDeleted) {
  EXPECT_EQ(folder("/Home/Documents").capabilities(), 43u);
  EXPECT_EQ(file("/Home/Documents/Apps").capabilities(), 43u);
}

TEST(FPItem, ProtectionIsExactAndCoversTheSubtree) {
  for (const std::string name : {"Apps", "Containers", "Caches", "AppCache-Archive", "Offloaded",
                                 "iOS-Backups", "Docker-Data", "Backups", "_pending-delete"}) {
    EXPECT_TRUE(FPItem::isHomeProtected("/Home/" + name)) << name;
    EXPECT_TRUE(FPItem::isHomeProtected("/Home/" + name + "/x/y")) << name;
    EXPECT_FALSE(FPItem::isHomeProtected("/Home/" + name + "2")) << name;
  }
  EXPECT_EQ(FPItem::criticalHomeFolders().size(), 9u);
  EXPECT_TRUE(FPItem::isHomeProtected("/Home//Apps"));
  for (const auto path : {"/Home", "/Home/", "/home/Apps", "/Home/caches", "/Home/Documents/Apps",
                          "/Other/Apps", "Home/Apps", "", "/"}) {
    EXPECT_FALSE(FPItem::isHomeProtected(path)) << path;
  }
}

TEST(FPItem, DirectoriesHaveTheFolderTypeWhateverTheirExtension) {
  EXPECT_EQ(folder("/a.zip").contentType(), UTType::folder());
  EXPECT_EQ(file("/archive").contentType(), UTType::data());
  EXPECT_EQ(file("/a.JPG").contentType(), UTType("public.jpeg"));
}

TEST(FPItem, OnlyFilesHaveASize) {
  EXPECT_EQ(FPItem("/d", true, 4096, "e", std::nullopt).documentSize(), std::nullopt);
  EXPECT_EQ(FPItem("/f", false, 4096, "e", std::nullopt).documentSize(), 4096);
  EXPECT_EQ(FPItem("/d", true, 4096, "e", std::nullopt).itemVersion().contentVersion, "e|0|4096");
}

TEST(FPItem, VersionsTellWholeSecondsApartAndNothingFiner) {
  const auto version = [](double seconds) {
    return FPItem("/a", false, 12, "abc", NSDate{seconds}).itemVersion();
  };
  EXPECT_EQ(version(1700000000.7).contentVersion, "abc|1700000000|12");
  EXPECT_EQ(version(1700000000.1), version(1700000000.9));
  EXPECT_NE(version(1700000000), version(1700000001));
  EXPECT_EQ(version(-0.5).contentVersion, "abc|0|12");
  EXPECT_EQ(version(-1.5).contentVersion, "abc|-1|12");
}

TEST(FPItemDeathTest, AVersionOfATimeOutOfRangeIsFatal) {
  for (const double seconds :
       {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
        9223372036854775808.0, -9223372036854777856.0}) {
    const FPItem item("/a", false, 0, "e", NSDate{seconds});
    EXPECT_DEATH(item.itemVersion(), "outside the range");
  }
}

}  // namespace
}  // namespace kestrowan
