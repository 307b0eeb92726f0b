#include "replica/model/Path.h"

#include <gtest/gtest.h>

namespace kestrowan::replica::model {
namespace {

Path path(std::initializer_list<std::string_view> names) {
  Path result;
  for (const auto name : names) result = result.child(name);
  return result;
}

TEST(PathTest, GoesDownAndUpByOneName) {
  EXPECT_TRUE(Path().isRoot());
  EXPECT_EQ(path({"a", "b"}).text(), "a/b");
  EXPECT_EQ(path({"a", "b"}).folder(), path({"a"}));
  EXPECT_EQ(path({"a"}).folder(), Path());
  EXPECT_EQ(path({"a", "b"}).name(), "b");
  EXPECT_EQ(path({"a"}).name(), "a");
}

TEST(PathTest, IsBelowWholeNamesOnly) {
  EXPECT_TRUE(path({"a"}).isAtOrBelow(Path()));
  EXPECT_TRUE(path({"a"}).isAtOrBelow(path({"a"})));
  EXPECT_TRUE(path({"a", "b"}).isAtOrBelow(path({"a"})));
  EXPECT_FALSE(path({"ab"}).isAtOrBelow(path({"a"})));
  EXPECT_FALSE(path({"a"}).isAtOrBelow(path({"a", "b"})));
}

TEST(PathTest, MovesWithTheFolderThatItIsIn) {
  EXPECT_EQ(path({"a", "b"}).moved(path({"a"}), path({"c", "d"})), path({"c", "d", "b"}));
  EXPECT_EQ(path({"a"}).moved(path({"a"}), path({"c"})), path({"c"}));
  EXPECT_EQ(path({"ab"}).moved(path({"a"}), path({"c"})), path({"ab"}));
}

TEST(PathTest, IsReadFromItsText) {
  const Path path = Path().child("d").child("f");
  EXPECT_EQ(Path::fromText(path.text()), path);
  EXPECT_EQ(Path::fromText(""), Path());
  for (const char* text : {"/", "/d", "d/", "d//f"}) {
    EXPECT_EQ(Path::fromText(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace kestrowan::replica::model
