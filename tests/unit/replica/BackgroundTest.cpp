#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/NSError.h"
#include "replica/Caller.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using replica::OpenMode;
using replica::ProgramKind;
using std::chrono::seconds;

class SomeProgram : public replica::Caller {
 public:
  SomeProgram(ProgramKind kind, std::string name) : kind_(kind), name_(std::move(name)) {}

  ProgramKind kind() const override { return kind_; }
  std::string name() const override { return name_; }

 private:
  const ProgramKind kind_;
  const std::string name_;
};

OpenMode as(ProgramKind kind, const std::string& name = "program") {
  OpenMode mode;
  mode.caller = std::make_shared<SomeProgram>(kind, name);
  return mode;
}

/// What programs in the background get of files that are not here.
class BackgroundTest : public testing::Test {
 protected:
  explicit BackgroundTest(const replica::Options& options = {}) : world({}, options) {
    world.server().makeFolder("/docs");
    world.server().writeFile("/docs/a", "one");
    world.server().writeFile("/docs/large", std::string((1 << 20) + 1, 'x'));
    world.list("/docs");
    world.extension().clearCalls();
  }

  std::size_t fetches() const { return world.extension().count(CallKind::fetchContents); }
  void expectRefused(std::string_view path, const OpenMode& mode) {
    try {
      world.open(path, mode);
      ADD_FAILURE() << path << " was opened";
    } catch (const NSError& error) {
      EXPECT_TRUE(error.is(NSPOSIXErrorDomain, EACCES)) << error.localizedDescription();
    }
  }

  mutable ReplicaWorld world;
};

TEST_F(BackgroundTest, NothingIsFetchedForAProgramInTheBackground) {
  expectRefused("/docs/a", as(ProgramKind::background, "indexer"));
  OpenMode writing = as(ProgramKind::background, "scanner");
  writing.write = true;
  expectRefused("/docs/a", writing);
  world.advance(seconds(1));
  EXPECT_EQ(fetches(), 0u);
  const auto status = world.replica().commands().status();
  EXPECT_EQ(status.refusedPrograms, 2);
  EXPECT_EQ(status.lastRefusedProgram, "scanner");
}

TEST_F(BackgroundTest, WhatIsHereIsReadByAll) {
  EXPECT_EQ(world.read("/docs/a"), "one");
  EXPECT_NE(world.open("/docs/a", as(ProgramKind::background)), nullptr);
  EXPECT_NE(world.open("/docs/a", as(ProgramKind::thumbnailer)), nullptr);
  EXPECT_EQ(world.replica().commands().status().refusedPrograms, 0);
}

TEST_F(BackgroundTest, AnOrdinaryProgramThatIsLookedAtGetsAll) {
  EXPECT_NE(world.open("/docs/a", as(ProgramKind::ordinary)), nullptr);
  EXPECT_EQ(fetches(), 1u);
}

TEST_F(BackgroundTest, AFileThatBecomesEmptyIsNotFetchedAndNotRefused) {
  OpenMode emptying = as(ProgramKind::background);
  emptying.write = true;
  emptying.truncate = true;
  EXPECT_NE(world.open("/docs/a", emptying), nullptr);
  EXPECT_EQ(fetches(), 0u);
}

TEST_F(BackgroundTest, AThumbnailerGetsSmallFilesAlone) {
  expectRefused("/docs/large", as(ProgramKind::thumbnailer));
  EXPECT_NE(world.open("/docs/a", as(ProgramKind::thumbnailer)), nullptr);
  EXPECT_EQ(fetches(), 1u);
}

TEST_F(BackgroundTest, ThumbnailersFetchOneAtATimeAndAfterEverybodyElse) {
  for (const auto* name : {"b", "c", "d"}) {
    world.server().writeFile(std::string("/docs/") + name, "x");
  }
  world.advance(seconds(5));
  world.list("/docs");
  world.advance(seconds(1));
  std::vector<replica::Rid> files;
  for (const auto* name : {"a", "b", "c", "d"}) {
    files.push_back(world.find(std::string("/docs/") + name));
  }
  world.extension().clearCalls();
  world.extension().setLatency(seconds(1));
  std::vector<BegunCall<std::shared_ptr<replica::OpenFile>>> calls;
  const auto open = [&](std::size_t file, const OpenMode& mode) {
    calls.push_back(world.call(world.replica().files().openFile(files[file], mode)));
  };
  open(0, as(ProgramKind::ordinary));
  open(1, as(ProgramKind::thumbnailer));
  open(2, as(ProgramKind::thumbnailer));
  world.advance(std::chrono::milliseconds(500));
  open(3, as(ProgramKind::ordinary));
  world.advance(std::chrono::milliseconds(900));
  EXPECT_TRUE(calls[0].hasSucceeded());
  EXPECT_EQ(fetches(), 2u) << "the ordinary programs' alone";
  world.advance(seconds(60));
  for (const auto& call : calls) EXPECT_TRUE(call.hasSucceeded());
  EXPECT_EQ(fetches(), 4u);
  EXPECT_EQ(world.extension().mostAtOnce(CallKind::fetchContents), 2u);
}

TEST_F(BackgroundTest, NothingIsFetchedOrListedAheadOfThem) {
  for (int number = 100; number < 130; ++number) {
    world.server().writeFile("/docs/file" + std::to_string(number), "x");
    world.server().makeFolder("/docs/folder" + std::to_string(number));
  }
  world.advance(seconds(5));
  world.list("/docs");
  world.advance(seconds(1));
  world.list("/docs");
  world.extension().clearCalls();
  for (int number = 100; number < 104; ++number) {
    world.open("/docs/file" + std::to_string(number), as(ProgramKind::thumbnailer));
  }
  EXPECT_EQ(fetches(), 4u);
  const auto indexer = std::make_shared<SomeProgram>(ProgramKind::background, "indexer");
  for (int number = 100; number < 104; ++number) {
    const auto folder = world.find("/docs/folder" + std::to_string(number));
    world.await(world.replica().files().openFolder(folder, indexer));
    world.replica().files().closeFolder(folder);
  }
  world.advance(std::chrono::milliseconds(500));
  EXPECT_EQ(fetches(), 4u);
  const auto calls = world.extension().calls();
  EXPECT_EQ(std::count_if(
                calls.begin(), calls.end(),
                [](const auto& call) { return call.find("/docs/folder") != std::string::npos; }),
            4);
}

class AllowedBackgroundTest : public BackgroundTest {
 protected:
  AllowedBackgroundTest() : BackgroundTest(options()) {}

  static replica::Options options() {
    replica::Options options;
    options.backgroundMayFetch = true;
    return options;
  }
};

TEST_F(AllowedBackgroundTest, TheUserCanAllowIt) {
  EXPECT_NE(world.open("/docs/large", as(ProgramKind::background)), nullptr);
  EXPECT_EQ(world.replica().commands().status().refusedPrograms, 0);
}

}  // namespace
}  // namespace kestrowan::test
