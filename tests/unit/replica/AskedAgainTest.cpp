#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/NSError.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;

const NSError kLost{NSURLErrorDomain, NSURLErrorNetworkConnectionLost};
const NSError kServerError = NSFileProviderError(NSFileProviderErrorCode::serverUnreachable);

/// What only reads is asked for again before a program gets an error.
class AskedAgainTest : public testing::Test {
 protected:
  AskedAgainTest() {
    world.server().makeFolder("/docs");
    world.server().writeFile("/docs/a", "contents");
    world.advance(seconds(31));
    world.list("/");
    world.extension().clearCalls();
  }

  /// Lets the first `count` calls of the kind on the path fail.
  void fail(CallKind kind, const std::string& path, int count, const NSError& error) {
    auto left = std::make_shared<int>(count);
    world.extension().setFaults([=](const Call& call) {
      Fault fault;
      if (call.kind == kind && call.path == path && (*left)-- > 0) {
        fault = {.effect = Fault::Effect::none, .error = error};
      }
      return fault;
    });
  }
  /// Takes the server away now, and brings it back after `time`.
  void takeAway(milliseconds time) {
    world.extension().setDown(true);
    world.loop().postAfter(time, [this] { world.extension().setDown(false); });
  }
  std::size_t calls(const std::string& text) const {
    const auto all = world.extension().calls();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), text));
  }
  std::string errorOf(const std::function<void()>& call) const {
    try {
      call();
    } catch (const NSError& error) {
      return error.domain() + " " + std::to_string(error.code());
    }
    return {};
  }

  mutable ReplicaWorld world;
};

TEST_F(AskedAgainTest, OneListingThatTheServerRefusesIsNoError) {
  fail(CallKind::enumerateItems, "/docs", 1, kServerError);
  EXPECT_THAT(world.list("/docs"), ElementsAre("a"));
  EXPECT_EQ(calls("enumerateItems /docs"), 2u);
}

TEST_F(AskedAgainTest, OneListingThatIsCutIsNoError) {
  fail(CallKind::enumerateItems, "/docs", 1, kLost);
  EXPECT_THAT(world.list("/docs"), ElementsAre("a"));
  EXPECT_EQ(calls("enumerateItems /docs"), 2u);
}

TEST_F(AskedAgainTest, AListingThatNeverSucceedsIsAnErrorWithinThePatience) {
  for (const NSError& error : {kServerError, kLost}) {
    world.extension().clearCalls();
    fail(CallKind::enumerateItems, "/docs", 100, error);
    const auto before = world.loop().now();
    EXPECT_EQ(errorOf([&] { world.list("/docs"); }),
              error.domain() + " " + std::to_string(error.code()));
    EXPECT_LT(world.loop().now() - before, seconds(3));
    EXPECT_EQ(calls("enumerateItems /docs"), 3u);
    EXPECT_LE(calls("enumerateItems /"), 1u) << "the folder above is looked at once";
  }
}

TEST_F(AskedAgainTest, ARefusalForGoodIsNotAskedForAgain) {
  fail(CallKind::enumerateItems, "/docs", 1, posixError(EPERM));
  EXPECT_NE(errorOf([&] { world.list("/docs"); }), "");
  EXPECT_EQ(calls("enumerateItems /docs"), 1u);
}

TEST_F(AskedAgainTest, WhatIsKnownIsShownInsteadOfAskingAgain) {
  world.list("/docs");
  // It is in use no longer, and so not listed by itself.
  world.advance(minutes(10));
  world.extension().clearCalls();
  fail(CallKind::enumerateItems, "/docs", 1, kLost);
  const auto before = world.loop().now();
  EXPECT_THAT(world.list("/docs"), ElementsAre("a"));
  EXPECT_EQ(world.loop().now(), before);
  EXPECT_EQ(calls("enumerateItems /docs"), 1u);
}

TEST_F(AskedAgainTest, OneFetchThatFailsIsNoError) {
  for (const NSError& error : {kServerError, kLost}) {
    const std::string path = "/docs/b" + std::to_string(error.code());
    world.server().writeFile(path, "other");
    world.advance(seconds(40));
    fail(CallKind::fetchContents, path, 2, error);
    EXPECT_EQ(world.read(path), "other");
    EXPECT_EQ(calls("fetchContents " + path), 3u);
  }
}

TEST_F(AskedAgainTest, AFetchIsTriedThreeTimes) {
  fail(CallKind::fetchContents, "/docs/a", 100, kLost);
  EXPECT_NE(errorOf([&] { world.read("/docs/a"); }), "");
  EXPECT_EQ(calls("fetchContents /docs/a"), 3u);
}

TEST_F(AskedAgainTest, AChangeIsNotMadeAgainBlindly) {
  world.extension().setFaults([](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::createItem) fault.error = kLost;
    return fault;
  });
  world.makeFolder("/new");
  EXPECT_TRUE(world.settle());
  EXPECT_EQ(calls("createItem /new folder"), 1u);
  EXPECT_TRUE(world.server().stat("/new"));
}

TEST_F(AskedAgainTest, AFolderThatWasNeverListedIsWaitedForWhenTheServerRestarts) {
  takeAway(milliseconds(1500));
  const auto before = world.loop().now();
  EXPECT_THAT(world.list("/docs"), ElementsAre("a"));
  EXPECT_LT(world.loop().now() - before, seconds(2));
}

TEST_F(AskedAgainTest, AFileIsWaitedForWhenTheServerRestarts) {
  world.list("/docs");
  takeAway(milliseconds(1500));
  EXPECT_EQ(world.read("/docs/a"), "contents");
}

TEST_F(AskedAgainTest, AllFilesAreFoundWhileTheServerRestarts) {
  constexpr int kFolders = 100;
  for (int number = 0; number < kFolders; ++number) {
    const std::string folder = "/docs/folder" + std::to_string(number);
    world.server().makeFolder(folder);
    world.server().writeFile(folder + "/file", std::to_string(number));
  }
  world.advance(seconds(40));
  world.extension().setLatency(milliseconds(10));
  int listings = 0;
  world.extension().setFaults([&](const Call& call) {
    Fault fault;
    if (call.kind == CallKind::enumerateItems && ++listings == 30) {
      // What is under way breaks off.
      fault = {.effect = Fault::Effect::none, .error = kLost};
      takeAway(milliseconds(1500));
    }
    return fault;
  });
  std::size_t files = 0;
  for (const auto& name : world.list("/docs")) {
    if (name != "a") files += world.list("/docs/" + name).size();
  }
  EXPECT_GT(listings, 30);
  EXPECT_EQ(files, static_cast<std::size_t>(kFolders));
}

TEST_F(AskedAgainTest, AServerThatIsBackIsNoticedByTheFirstCall) {
  world.extension().setDown(true);
  world.write("/new", "x");
  world.advance(minutes(10));
  ASSERT_TRUE(world.replica().commands().status().offline);
  world.extension().setDown(false);
  const auto before = world.loop().now();
  EXPECT_THAT(world.list("/docs"), ElementsAre("a"));
  EXPECT_LT(world.loop().now() - before, milliseconds(200));
  EXPECT_FALSE(world.replica().commands().status().offline);
}

TEST_F(AskedAgainTest, NothingIsWaitedForWhenTheServerHasBeenAwayForLong) {
  world.extension().setDown(true);
  world.write("/new", "x");
  world.advance(minutes(10));
  world.extension().clearCalls();
  const auto before = world.loop().now();
  EXPECT_NE(errorOf([&] { world.list("/docs"); }), "");
  EXPECT_LT(world.loop().now() - before, milliseconds(200));
  EXPECT_EQ(world.extension().count(), 1u);
}

/// Files are read by many programs at once.
class ReadAtOnceTest : public testing::Test {
 protected:
  /// New files in a folder of their own, where no other is fetched ahead.
  std::vector<replica::Rid> make(int count, std::size_t size) {
    const std::string folder = "/d" + std::to_string(++last);
    world.server().makeFolder(folder);
    std::vector<std::string> paths;
    for (int number = 0; number < count; ++number) {
      paths.push_back(folder + "/" + std::to_string(number));
      world.server().writeFile(paths.back(), std::string(size, 'x'));
    }
    world.advance(minutes(10));
    world.list("/");
    world.list(folder);
    std::vector<replica::Rid> items;
    for (const auto& path : paths) items.push_back(world.find(path));
    world.extension().clearCalls();
    return items;
  }
  void open(const std::vector<replica::Rid>& items) {
    for (const auto item : items) {
      calls.push_back(world.call(world.replica().files().openFile(item, {.read = true})));
    }
  }
  std::ptrdiff_t opened() const {
    return std::count_if(calls.begin(), calls.end(),
                         [](const auto& call) { return call.hasSucceeded(); });
  }
  std::size_t mostAtOnce() const { return world.extension().mostAtOnce(CallKind::fetchContents); }

  mutable ReplicaWorld world;
  int last = 0;
  std::vector<test::BegunCall<std::shared_ptr<replica::OpenFile>>> calls;
};

TEST_F(ReadAtOnceTest, SmallFilesDoNotWaitForOneAnotherWhenAnswersAreSlow) {
  const auto items = make(10, 1000);
  world.extension().setLatency(seconds(4));
  open(items);
  world.advance(milliseconds(4200));
  EXPECT_EQ(opened(), 10);
  EXPECT_EQ(world.extension().count(CallKind::fetchContents), 10u);
}

TEST_F(ReadAtOnceTest, NoMoreThanTwentyFourAreFetchedAtOnce) {
  const auto items = make(60, 1000);
  world.extension().setLatency(seconds(4));
  open(items);
  world.advance(seconds(20));
  EXPECT_EQ(opened(), 60);
  EXPECT_EQ(mostAtOnce(), 24u);
}

TEST_F(ReadAtOnceTest, FourAreFetchedAtOnceWhenAnswersAreFast) {
  open(make(60, 1000));
  world.advance(seconds(20));
  const auto items = make(60, 1000);
  world.extension().setLatency(milliseconds(20));
  open(items);
  world.advance(seconds(20));
  EXPECT_EQ(opened(), 120);
  EXPECT_EQ(mostAtOnce(), 4u);
}

TEST_F(ReadAtOnceTest, LargeFilesAreFetchedByFourAndSmallOnesDoNotWaitForThem) {
  const auto small = make(2, 1000);
  const auto large = make(8, 300 * 1024);
  world.extension().setLatency(seconds(4));
  open(large);
  world.advance(seconds(1));
  EXPECT_EQ(mostAtOnce(), 4u);
  world.extension().setLatency(milliseconds(0));
  open(small);
  world.advance(seconds(1));
  EXPECT_EQ(opened(), 2);
  world.advance(seconds(20));
  EXPECT_EQ(opened(), 10);
  EXPECT_LE(mostAtOnce(), 6u);
}

}  // namespace
}  // namespace kestrowan::test
