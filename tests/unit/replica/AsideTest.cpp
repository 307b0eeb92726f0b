#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>

#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::SizeIs;

/// What takes long runs beside the loop, and other calls are answered meanwhile.
class AsideTest : public testing::Test {
 protected:
  AsideTest() {
    world.server().writeFile("/a", "there");
    world.list("/");
  }

  static constexpr std::size_t kLarge = 2 << 20;

  std::size_t contents() const {
    std::size_t count = 0;
    for (const auto& file : fs::directory_iterator(world.directory() + "/contents")) {
      if (file.is_regular_file()) ++count;
    }
    return count;
  }
  /// Everything that a program may ask without waiting for anything is answered.
  void expectAnswers() {
    EXPECT_EQ(world.attributes("/a").size, 5);
    world.write("/mine", "here");
    EXPECT_EQ(world.read("/mine"), "here");
    EXPECT_EQ(world.read("/a"), "there");
    EXPECT_FALSE(world.list("/").empty());
    EXPECT_GT(world.replica().commands().status().itemCount, 2);
  }
  void holdUntilSomethingIsAside(milliseconds limit) {
    world.loop().holdAside(true);
    ASSERT_TRUE(world.loop().runUntil([&] { return world.loop().countAside() > 0; }, limit));
  }

  ReplicaWorld world;
};

TEST_F(AsideTest, LargeDownloadIsLookedThrough) {
  const std::string bytes(kLarge, 'x');
  world.server().writeFile("/large", bytes);
  world.advance(seconds(40));
  world.list("/");
  const auto opened = world.call(world.replica().files().openFile(world.find("/large"), {}));
  holdUntilSomethingIsAside(seconds(10));
  expectAnswers();
  EXPECT_FALSE(opened.hasEnded());
  world.loop().holdAside(false);
  ASSERT_TRUE(world.loop().runUntil([&] { return opened.hasEnded(); }, minutes(1)));
  EXPECT_EQ(ReplicaWorld::readFrom(*opened.result()), bytes);
}

TEST_F(AsideTest, SmallDownloadNeedsNothing) {
  world.loop().holdAside(true);
  EXPECT_EQ(world.read("/a"), "there");
  EXPECT_EQ(world.loop().countAside(), 0U);
}

TEST_F(AsideTest, LargeContentsOfBothSidesAreCompared) {
  world.server().writeFile("/both", std::string(kLarge, 'x'));
  world.advance(seconds(40));
  EXPECT_THAT(world.read("/both"), SizeIs(kLarge));
  world.extension().setDown(true);
  world.write("/both", std::string(kLarge, 'z'));
  world.server().writeFile("/both", std::string(kLarge, 'z'));
  world.extension().setDown(false);
  holdUntilSomethingIsAside(minutes(5));
  expectAnswers();
  world.loop().holdAside(false);
  ASSERT_TRUE(world.settle());
  // The same bytes agree.
  EXPECT_TRUE(world.replica().commands().status().conflicts.empty());
  EXPECT_EQ(world.tree(), world.server().tree());
}

TEST_F(AsideTest, ContentsThatNothingNeedsAreRemoved) {
  world.write("/gone", "bytes");
  ASSERT_TRUE(world.settle());
  world.remove("/gone");
  ASSERT_TRUE(world.settle());
  const std::size_t before = contents();
  EXPECT_EQ(world.replica().commands().clearHistory({}).files, 1);
  EXPECT_EQ(contents(), before - 1);
  world.write("/later", "");
  world.write("/later", "other");
  world.remove("/later");
  world.loop().holdAside(true);
  const std::size_t held = contents();
  world.advance(seconds(20));
  expectAnswers();
  EXPECT_GE(contents(), held);
  world.loop().holdAside(false);
  world.advance(seconds(20));
  EXPECT_LE(contents(), held + 2);
}

TEST_F(AsideTest, LimitsOfTheDiskAreKept) {
  holdUntilSomethingIsAside(minutes(2));
  expectAnswers();
  world.loop().holdAside(false);
  world.advance(minutes(2));
  EXPECT_EQ(world.loop().countAside(), 0U);
}

}  // namespace
}  // namespace kestrowan::test
