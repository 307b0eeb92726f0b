#include <gtest/gtest.h>

#include "Completions.h"
#include "support/Cases.h"

namespace kestrowan {
namespace {

using Extension = FileProviderExtension;

TEST(ChildPath, AnswersEveryKnownCase) {
  test::checkCases("item-paths", "child_path", [](const test::Case& one) {
    return JSONValue(Extension::childPath(*one.input.member("parent")->string(),
                                          *one.input.member("name")->string()));
  });
}

TEST(ChildPath, OfTheRootHasOneSlashInFront) {
  EXPECT_EQ(Extension::childPath(std::string(NSFileProviderRootContainerItemIdentifier), "a.txt"),
            "/a.txt");
  EXPECT_EQ(Extension::childPath("/", "a.txt"), "/a.txt");
  EXPECT_EQ(Extension::childPath("///", "a.txt"), "/a.txt");
  EXPECT_EQ(Extension::childPath("", "a.txt"), "/a.txt");
}

TEST(ChildPath, TakesTheNameAsItIs) {
  EXPECT_EQ(Extension::childPath("/Home/", "a b%20#"), "/Home/a b%20#");
  EXPECT_EQ(Extension::childPath("/Home", "a//"), "/Home/a");
  EXPECT_EQ(Extension::childPath("/Home", ""), "/Home");
}

TEST(ValidName, AnswersEveryKnownCase) {
  test::checkCases("item-paths", "valid_name", [](const test::Case& one) {
    return JSONValue(Extension::validName(one.bytes));
  });
}

TEST(ValidName, RefusesTheEmptyNameDotsAndSlashes) {
  for (const auto name : {"", ".", "..", "a/b", "/", "/a", "a/"}) {
    EXPECT_FALSE(Extension::validName(name)) << name;
  }
}

TEST(ValidName, TakesEverythingElse) {
  for (const std::string& name :
       {std::string("..."), std::string(".hidden"), std::string("a:b"), std::string("trailing "),
        std::string("line\nfeed"), std::string("nul\0byte", 8), std::string(1000, 'n')}) {
    EXPECT_TRUE(Extension::validName(name)) << name;
  }
}

TEST(PermDenied, IsOneObject) {
  const NSError copy = Extension::permDenied();
  EXPECT_TRUE(Extension::permDenied().isIdenticalTo(Extension::permDenied()));
  EXPECT_TRUE(copy.isIdenticalTo(Extension::permDenied()));
  EXPECT_EQ(copy.domain(), NSPOSIXErrorDomain);
  EXPECT_EQ(copy.code(), 1);
  EXPECT_TRUE(copy.userInfo().empty());
}

class EmptyTempFile : public test::RequestFixture {};

TEST_F(EmptyTempFile, IsANewEmptyFileNamedByAUUID) {
  const NSURL first = Extension::emptyTempFile();
  const NSURL second = Extension::emptyTempFile();
  EXPECT_NE(first, second);
  for (const NSURL& file : {first, second}) {
    EXPECT_EQ(std::filesystem::file_size(file.path()), 0u);
    EXPECT_EQ(std::filesystem::path(file.path()).parent_path(), temporary());
    EXPECT_EQ(std::filesystem::path(file.path()).filename().string().size(), 36u);
    EXPECT_EQ(std::filesystem::status(file.path()).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  }
}

TEST_F(EmptyTempFile, GivesItsURLAlsoWhenTheFileCannotBeMade) {
  std::filesystem::remove(temporary());
  EXPECT_FALSE(std::filesystem::exists(Extension::emptyTempFile().path()));
}

}  // namespace
}  // namespace kestrowan
