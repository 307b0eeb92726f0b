#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using replica::AttributeChange;
using replica::Attributes;
using std::chrono::seconds;

constexpr std::int64_t kThen = 1'000'000'000'123'456'789;

/// When an item changed, and when it was used last, as programs see it. The clock stands still
/// unless a test says otherwise.
class ChangeDateTest : public testing::Test {
 protected:
  ChangeDateTest() {
    world.server().makeFolder("/d");
    world.server().makeFolder("/e");
    world.server().writeFile("/d/a", "1");
    world.list("/");
    world.list("/d");
  }

  void change(const std::string& path, const std::function<void(AttributeChange&)>& describe) {
    AttributeChange wanted;
    describe(wanted);
    auto changing = world.replica().files().setAttributes(world.find(path), wanted);
    ASSERT_TRUE(world.call(std::move(changing)).hasSucceeded());
  }
  std::int64_t changed(const std::string& path) { return world.attributes(path).changed; }
  /// Whether `action` moves the date of the item, which afterwards is at `after`.
  void expectMoves(const std::string& path, const std::function<void()>& action,
                   const std::string& after = {}) {
    const std::int64_t before = changed(path);
    action();
    EXPECT_GT(changed(after.empty() ? path : after), before);
  }

  ReplicaWorld world;
};

TEST_F(ChangeDateTest, MovesWithContentsAndAttributesThoughTheClockStandsStill) {
  const auto rid = world.find("/d/a");
  for (int round = 0; round < 2; ++round) {
    expectMoves("/d/a", [&] { world.append("/d/a", "2"); });
    expectMoves("/d/a", [&] { world.write("/d/a", "3"); });
    expectMoves("/d/a", [&] { world.write("/d/a", ""); });
    expectMoves("/d/a", [&] { change("/d/a", [](auto& wanted) { wanted.mode = 0600; }); });
    expectMoves("/d/a", [&] { change("/d/a", [](auto& wanted) { wanted.modified = kThen; }); });
    expectMoves("/d/a", [&] { change("/d/a", [](auto& wanted) { wanted.accessed = kThen; }); });
    expectMoves("/d/a", [&] { change("/d/a", [](auto& wanted) { wanted.size = 5; }); });
    expectMoves("/d/a", [&] { change("/d/a", [](auto& wanted) { wanted.size = 0; }); });
    expectMoves("/d/a", [&] { change("/d/a", [](auto&) {}); });
    expectMoves("/d/a", [&] {
      world.replica().files().setUserAttribute(rid, "user.x", "y", replica::SetMode::either);
    });
    expectMoves("/d/a", [&] { world.replica().files().removeUserAttribute(rid, "user.x"); });
    expectMoves(
        "/d/a", [&] { world.rename("/d/a", "/d/b"); }, "/d/b");
    expectMoves(
        "/d/b", [&] { world.rename("/d/b", "/e/b"); }, "/e/b");
    expectMoves(
        "/e/b", [&] { world.rename("/e/b", "/d/a"); }, "/d/a");
  }
}

TEST_F(ChangeDateTest, StaysWhileNothingChanges) {
  const std::int64_t before = changed("/d/a");
  EXPECT_EQ(world.read("/d/a"), "1");
  world.open("/d/a", {.read = true});
  world.advance(seconds(60));
  world.list("/d");
  EXPECT_EQ(changed("/d/a"), before);
  world.append("/d/a", "2");
  const std::int64_t after = changed("/d/a");
  EXPECT_TRUE(world.settle());
  world.list("/d");
  EXPECT_EQ(changed("/d/a"), after);
}

TEST_F(ChangeDateTest, OfAFolderMovesWithWhatIsInIt) {
  expectMoves("/d", [&] { world.write("/d/new", "1"); });
  expectMoves("/d", [&] { world.makeFolder("/d/f"); });
  expectMoves("/d", [&] { world.removeFolder("/d/f"); });
  expectMoves("/d", [&] { world.rename("/d/new", "/d/newer"); });
  expectMoves("/e", [&] { world.rename("/d/newer", "/e/newer"); });
  expectMoves("/e", [&] { world.remove("/e/newer"); });
  expectMoves(
      "/d", [&] { world.rename("/d", "/c"); }, "/c");
}

TEST_F(ChangeDateTest, OfAnOpenFileMovesWhenItsNameGoes) {
  for (const bool replaced : {false, true}) {
    world.write("/d/open", "1");
    const auto file = world.open("/d/open", {.read = true});
    const std::int64_t before = world.replica().files().attributes(file->rid()).changed;
    if (replaced) {
      world.write("/d/other", "2");
      world.rename("/d/other", "/d/open");
    } else {
      world.remove("/d/open");
    }
    EXPECT_GT(world.replica().files().attributes(file->rid()).changed, before);
  }
}

TEST_F(ChangeDateTest, MovesWhenTheProviderHasOtherContents) {
  for (const bool isHere : {false, true}) {
    if (isHere) world.read("/d/a");
    expectMoves("/d/a", [&] {
      world.server().writeFile("/d/a", "twelve");
      world.advance(seconds(60));
      world.list("/d");
    });
  }
}

TEST_F(ChangeDateTest, SurvivesTheProcess) {
  world.write("/d/new", "1");
  world.append("/d/a", "2");
  change("/d/a", [](auto& wanted) { wanted.mode = 0600; });
  world.append("/d/a", "3");
  world.append("/d/a", "4");
  const Attributes file = world.attributes("/d/a");
  const Attributes created = world.attributes("/d/new");
  const Attributes folder = world.attributes("/d");
  world.crashUnconnected();
  EXPECT_EQ(changed("/d/a"), file.changed);
  EXPECT_EQ(changed("/d/new"), created.changed);
  EXPECT_EQ(changed("/d"), folder.changed);
  EXPECT_EQ(world.attributes("/d/a").modified, file.modified);
  EXPECT_EQ(world.attributes("/d/new").modified, created.modified);
  EXPECT_EQ(world.attributes("/d").modified, folder.modified);
}

TEST_F(ChangeDateTest, MovesWithContentsThatAreNewerThanTheRow) {
  world.append("/d/a", "2");
  const std::int64_t before = changed("/d/a");
  world.crashUnconnected([&] {
    for (const auto& file : std::filesystem::directory_iterator(world.directory() + "/contents")) {
      std::ofstream(file.path(), std::ios::app) << "3";
    }
  });
  EXPECT_GT(changed("/d/a"), before);
  EXPECT_EQ(world.attributes("/d/a").size, 3);
}

TEST_F(ChangeDateTest, TheAccessThatAProgramSetStays) {
  EXPECT_EQ(world.attributes("/d/a").accessed, world.attributes("/d/a").modified);
  for (const char* path : {"/d/a", "/d"}) {
    const std::int64_t modified = world.attributes(path).modified;
    change(path, [](auto& wanted) { wanted.accessed = kThen; });
    EXPECT_EQ(world.attributes(path).accessed, kThen);
    EXPECT_EQ(world.attributes(path).modified, modified);
  }
  world.append("/d/a", "2");
  EXPECT_TRUE(world.settle());
  world.read("/d/a");
  EXPECT_EQ(world.attributes("/d/a").accessed, kThen);
  world.crash();
  EXPECT_EQ(world.attributes("/d/a").accessed, kThen);
  EXPECT_EQ(world.attributes("/d").accessed, kThen);
  change("/d/a", [](auto& wanted) { wanted.accessed = 0; });
  EXPECT_EQ(world.attributes("/d/a").accessed, 0);
}

}  // namespace
}  // namespace kestrowan::test
