#include "mount/ExpectedCall.h"

#include <gtest/gtest.h>

#include <vector>

#include "mount/EventCaller.h"

namespace kestrowan::mount {
namespace {

using replica::ItemKind;
using Kind = ExpectedLookup::Kind;

constexpr EventKind kKinds[] = {EventKind::placeFile, EventKind::makeFolder, EventKind::removeFile,
                                EventKind::removeFolder, EventKind::touch};

/// In the folder 5, which is "docs" in the root.
ExpectedCall expected(EventKind kind, replica::Rid other = 0) {
  return ExpectedCall({kind, 5, "name", 11, other}, {{replica::kRootRid, "docs", 5}});
}

TEST(ExpectedCall, TheWayToTheFolderIsFound) {
  for (const auto kind : kKinds) {
    const auto call = expected(kind);
    EXPECT_EQ(call.lookUp(replica::kRootRid, "docs"), (ExpectedLookup{Kind::item, 5}));
    EXPECT_EQ(call.lookUp(replica::kRootRid, "other"), ExpectedLookup());
    EXPECT_EQ(call.lookUp(5, "docs"), ExpectedLookup());
    EXPECT_EQ(call.lookUp(5, "other"), ExpectedLookup());
  }
}

TEST(ExpectedCall, TheNameIsAsTheCallNeedsIt) {
  const auto at = [](const ExpectedCall& call) { return call.lookUp(5, "name"); };
  EXPECT_EQ(at(expected(EventKind::placeFile)), (ExpectedLookup{Kind::absent, 0}));
  EXPECT_EQ(at(expected(EventKind::placeFile, 12)), (ExpectedLookup{Kind::departed, 12}));
  EXPECT_EQ(at(expected(EventKind::makeFolder)), (ExpectedLookup{Kind::absent, 0}));
  EXPECT_EQ(at(expected(EventKind::removeFile)), (ExpectedLookup{Kind::departed, 11}));
  EXPECT_EQ(at(expected(EventKind::removeFolder)), (ExpectedLookup{Kind::departed, 11}));
  EXPECT_EQ(at(expected(EventKind::touch)), (ExpectedLookup{Kind::item, 11}));
}

TEST(ExpectedCall, ThePlaceholderIsThereToBeRenamedAlone) {
  for (const auto kind : kKinds) {
    const auto call = expected(kind);
    const bool isPlacing = kind == EventKind::placeFile;
    EXPECT_EQ(call.lookUp(replica::kRootRid, kStagingName),
              isPlacing ? (ExpectedLookup{Kind::staging, kStagingFolder}) : ExpectedLookup());
    EXPECT_EQ(call.lookUp(kStagingFolder, kPlaceholderName),
              isPlacing ? (ExpectedLookup{Kind::item, 11}) : ExpectedLookup());
    EXPECT_EQ(call.lookUp(5, kStagingName), ExpectedLookup());
    EXPECT_EQ(call.lookUp(kStagingFolder, "other"), ExpectedLookup());
  }
}

TEST(ExpectedCall, EachRequestFitsOneKindOfCall) {
  for (const auto kind : kKinds) {
    const auto call = expected(kind);
    EXPECT_EQ(call.isMakingFolder(5, "name"), kind == EventKind::makeFolder);
    EXPECT_EQ(call.isRemoving(5, "name", ItemKind::file), kind == EventKind::removeFile);
    EXPECT_EQ(call.isRemoving(5, "name", ItemKind::folder), kind == EventKind::removeFolder);
    EXPECT_EQ(call.isPlacing(kStagingFolder, kPlaceholderName, 5, "name"),
              kind == EventKind::placeFile);
    EXPECT_EQ(call.isTouching(11), kind == EventKind::touch);
  }
}

TEST(ExpectedCall, OtherPlacesFitNone) {
  for (const auto kind : kKinds) {
    const auto call = expected(kind);
    for (const auto& [folder, name] : {std::pair(6u, "name"), std::pair(5u, "other"),
                                       std::pair(5u, ""), std::pair(1u, "docs")}) {
      EXPECT_FALSE(call.isMakingFolder(folder, name));
      EXPECT_FALSE(call.isRemoving(folder, name, ItemKind::file));
      EXPECT_FALSE(call.isRemoving(folder, name, ItemKind::folder));
      EXPECT_FALSE(call.isPlacing(kStagingFolder, kPlaceholderName, folder, name));
    }
    EXPECT_FALSE(call.isPlacing(5, "name", 5, "name"));
    EXPECT_FALSE(call.isPlacing(kStagingFolder, "other", 5, "name"));
    EXPECT_FALSE(call.isTouching(5));
  }
}

TEST(ExpectedCall, AFolderIsTouchedByItself) {
  const ExpectedCall call(callForFolder(5), {{replica::kRootRid, "docs", 5}});
  EXPECT_TRUE(call.isTouching(5));
  EXPECT_EQ(call.lookUp(5, ""), ExpectedLookup());
}

TEST(EventCaller, KnowsItsProcessesAndExpectsACallOfOne) {
  EventCaller caller;
  EXPECT_FALSE(caller.isCaller(7));
  caller.add(7);
  caller.add(8);
  const auto call = std::make_shared<const ExpectedCall>(expected(EventKind::touch));
  caller.expect(8, call);
  EXPECT_TRUE(caller.isCaller(7));
  EXPECT_FALSE(caller.isCaller(9));
  EXPECT_EQ(caller.expectedOf(7), nullptr);
  EXPECT_EQ(caller.expectedOf(8), call);
  caller.expectNothing();
  EXPECT_EQ(caller.expectedOf(8), nullptr);
  caller.expect(8, call);
  caller.remove(8);
  EXPECT_FALSE(caller.isCaller(8));
  EXPECT_EQ(caller.expectedOf(8), nullptr);
  EXPECT_TRUE(caller.isCaller(7));
}

}  // namespace
}  // namespace kestrowan::mount
