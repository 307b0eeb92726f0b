#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/NSError.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Le;
using testing::Optional;
using testing::Pair;

const std::string kComposed = "caf\u00e9";
const std::string kDecomposed = "cafe\u0301";

/// As some file systems store names.
std::string decomposed(std::string_view name) {
  std::string result(name);
  for (auto at = result.find("\u00e9"); at != std::string::npos; at = result.find("\u00e9")) {
    result.replace(at, 2, "e\u0301");
  }
  return result;
}

/// A provider that changes the form of the names that it is given; the parameter says whether its
/// identifiers are paths.
class NameFormsTest : public testing::TestWithParam<bool> {
 protected:
  NameFormsTest() : world({.opaqueIdentifiers = !GetParam()}) {
    world.server().setForm(decomposed);
    world.list("/");
  }
  void settle() {
    ASSERT_TRUE(world.settle());
    world.advance(seconds(70));
    world.list("/");
    ASSERT_TRUE(world.settle());
    EXPECT_THAT(world.extension().violations(), IsEmpty());
  }

  ReplicaWorld world;
};

INSTANTIATE_TEST_SUITE_P(Identifiers, NameFormsTest, testing::Bool());

TEST_P(NameFormsTest, TheNameThatAProgramGaveStaysAndNothingIsSentAgain) {
  world.write("/" + kComposed, "x");
  settle();
  EXPECT_THAT(world.server().tree(),
              ElementsAre(Pair("/" + kDecomposed, Optional(std::string("x")))));
  EXPECT_THAT(world.list("/"), ElementsAre(kComposed));
  world.extension().clearCalls();
  settle();
  EXPECT_EQ(world.extension().count(CallKind::createItem), 0U);
  EXPECT_EQ(world.extension().count(CallKind::modifyItem), 0U);
  EXPECT_EQ(world.extension().count(CallKind::fetchContents), 0U);
}

TEST_P(NameFormsTest, WhatIsWrittenUnderEitherFormIsOneFile) {
  world.write("/" + kComposed, "x");
  settle();
  world.write("/" + kDecomposed, "more");
  settle();
  EXPECT_THAT(world.list("/"), ElementsAre(kComposed));
  EXPECT_THAT(world.server().tree(),
              ElementsAre(Pair("/" + kDecomposed, Optional(std::string("more")))));
}

TEST_P(NameFormsTest, WhatIsRenamedToANameKeepsIt) {
  world.write("/a", "x");
  settle();
  world.rename("/a", "/" + kComposed);
  settle();
  EXPECT_THAT(world.list("/"), ElementsAre(kComposed));
  world.rename("/" + kComposed, "/b");
  settle();
  EXPECT_THAT(world.server().tree(), ElementsAre(Pair("/b", Optional(std::string("x")))));
  EXPECT_THAT(world.list("/"), ElementsAre("b"));
}

TEST_P(NameFormsTest, ASaveByRenamingReplacesTheFileUnderItsFirstName) {
  world.write("/" + kComposed, "x");
  settle();
  world.write("/new", "more");
  world.rename("/new", "/" + kDecomposed);
  settle();
  EXPECT_THAT(world.list("/"), ElementsAre(kComposed));
  EXPECT_THAT(world.server().tree(),
              ElementsAre(Pair("/" + kDecomposed, Optional(std::string("more")))));
}

TEST_P(NameFormsTest, WhatIsInAFolderIsFoundUnderItsName) {
  world.makeFolder("/" + kComposed);
  world.write("/" + kComposed + "/" + kComposed, "x");
  settle();
  world.server().writeFile("/" + kDecomposed + "/theirs", "y");
  world.advance(seconds(40));
  EXPECT_THAT(world.list("/" + kComposed), ElementsAre(kComposed, "theirs"));
  EXPECT_EQ(world.read("/" + kComposed + "/theirs"), "y");
  world.rename("/" + kComposed, "/d");
  settle();
  EXPECT_EQ(world.read("/d/" + kComposed), "x");
  EXPECT_EQ(world.server().tree().count("/d/" + kDecomposed), 1U);
  world.write("/d/" + kComposed, "more");
  settle();
  EXPECT_EQ(world.server().read("/d/" + kDecomposed), "more");
}

TEST_P(NameFormsTest, ALostAnswerMakesNoSecondFile) {
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::createItem) {
      fault.error = NSError(NSURLErrorDomain, NSURLErrorNetworkConnectionLost);
    }
    return fault;
  });
  world.write("/" + kComposed, "x");
  settle();
  EXPECT_THAT(world.list("/"), ElementsAre(kComposed));
  EXPECT_THAT(world.server().tree(),
              ElementsAre(Pair("/" + kDecomposed, Optional(std::string("x")))));
}

TEST_P(NameFormsTest, IsKnownInLaterRuns) {
  world.write("/" + kComposed, "x");
  settle();
  world.crash();
  world.list("/");
  world.write("/" + kDecomposed, "more");
  settle();
  EXPECT_THAT(world.list("/"), ElementsAre(kComposed));
  EXPECT_THAT(world.server().tree(),
              ElementsAre(Pair("/" + kDecomposed, Optional(std::string("more")))));
}

TEST_P(NameFormsTest, WhatAnotherClientWroteUnderTheOtherFormIsNotReplaced) {
  world.write("/" + kComposed, "x");
  settle();
  world.extension().setDown(true);
  world.write("/\u00e9", "ours");
  world.server().writeFile("/e\u0301", "theirs");
  world.extension().setDown(false);
  settle();
  const auto tree = world.server().tree();
  EXPECT_EQ(tree.size(), 3U);
  EXPECT_THAT(tree, testing::Contains(Pair("/e\u0301", Optional(std::string("theirs")))));
  EXPECT_EQ(world.tree().size(), 3U);
}

/// A provider that takes names as they are.
TEST(NamesAsTheyAreTest, TwoFormsAreTwoFiles) {
  ReplicaWorld world;
  world.list("/");
  world.write("/" + kComposed, "x");
  ASSERT_TRUE(world.settle());
  world.advance(seconds(40));
  world.write("/" + kDecomposed, "y");
  ASSERT_TRUE(world.settle());
  EXPECT_EQ(world.server().tree().size(), 2U);
  EXPECT_EQ(world.tree(), world.server().tree());
}

TEST(NamesAsTheyAreTest, ARenameByAnotherClientChangesNothingOfThat) {
  ReplicaWorld world;
  world.list("/");
  world.write("/" + kComposed, "x");
  ASSERT_TRUE(world.settle());
  world.advance(seconds(40));
  world.list("/");
  world.server().rename("/" + kComposed, "/" + kDecomposed);
  world.advance(seconds(80));
  EXPECT_THAT(world.list("/"), ElementsAre(kDecomposed));
  world.write("/" + kComposed, "y");
  ASSERT_TRUE(world.settle());
  EXPECT_EQ(world.server().tree().size(), 2U);
}

}  // namespace
}  // namespace kestrowan::test
