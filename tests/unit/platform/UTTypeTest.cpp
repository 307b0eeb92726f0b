#include "platform/types/UTType.h"

#include <gtest/gtest.h>

#include "platform/foundation/NSString.h"
#include "support/Cases.h"

namespace kestrowan {
namespace {

std::string dataType(std::string_view extension) {
  const auto type = UTType::type(extension, UTType::data());
  return type ? type->identifier() : "none";
}

TEST(UTTypeTest, TypesOfFilesAreAsExpected) {
  test::checkCases("uttype", "content_type", [](const test::Case& one) {
    if (*one.input.member("isDir")->boolean()) return UTType::folder().identifier();
    const auto extension = pathExtension(*one.input.member("idPath")->string());
    return UTType::type(extension, UTType::data()).value_or(UTType::data()).identifier();
  });
}

TEST(UTTypeTest, DynamicIdentifiersAreAsExpected) {
  test::checkCases("uttype", "dynamic_type_identifier",
                   [](const test::Case& one) { return dataType(one.bytes); });
}

TEST(UTTypeTest, OnlyTheFolderTypeIsTheFolderType) {
  test::checkCases("uttype", "template_is_folder",
                   [](const test::Case& one) { return UTType(one.bytes) == UTType::folder(); });
}

TEST(UTTypeTest, NoExtensionHasNoType) {
  EXPECT_EQ(UTType::type("", UTType::data()), std::nullopt);
}

TEST(UTTypeTest, LetterCaseOfExtensionsDoesNotMatter) {
  EXPECT_EQ(dataType("TXT"), "public.plain-text");
  EXPECT_EQ(dataType("Srt"), dataType("srt"));
  EXPECT_EQ(dataType("\xC3\x89"), dataType("\xC3\xA9"));
}

TEST(UTTypeTest, FirstAndLastDeclarationsAreFound) {
  EXPECT_EQ(dataType("3g2"), "public.3gpp2");
  EXPECT_EQ(dataType("zsh"), "public.zsh-script");
  EXPECT_EQ(dataType("zip"), "public.zip-archive");
}

TEST(UTTypeTest, DeclarationsOfDataStandForNothingElse) {
  EXPECT_TRUE(UTType::type("txt", UTType::folder())->identifier().starts_with("dyn."));
}

TEST(UTTypeTest, PathologicalExtensionsHaveDynamicTypes) {
  using namespace std::string_literals;
  EXPECT_EQ(dataType(std::string(100'000, 'q')).size(), 5 + (100'007 * 8 + 4) / 5);
  EXPECT_TRUE(dataType("\xE6\x97\xA5\xE6\x9C\xAC").starts_with("dyn.ah62d4rv4ge8"));
  EXPECT_TRUE(dataType("\0"s).starts_with("dyn.ah62d4rv4ge8"));
  EXPECT_TRUE(dataType("\xFF").starts_with("dyn.ah62d4rv4ge8"));
  EXPECT_TRUE(dataType("a b=c:d,e/f\n").starts_with("dyn.ah62d4rv4ge8"));
}

TEST(UTTypeTest, TypesAreEqualByIdentifier) {
  EXPECT_EQ(UTType("public.data"), UTType::data());
  EXPECT_NE(UTType::data(), UTType::folder());
}

}  // namespace
}  // namespace kestrowan
