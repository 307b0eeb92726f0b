#include "mount/EventCall.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kestrowan::mount {
namespace {

using replica::ItemKind;
using replica::NameChange;
using testing::ElementsAre;
using testing::IsEmpty;

using Shown = std::optional<NameChange::Shown>;

constexpr replica::Rid kFolder = 5;

NameChange change(Shown before, Shown now, bool hasOtherContents = false) {
  return {kFolder, "name", before, now, hasOtherContents};
}

EventCall call(EventKind kind, replica::Rid item, replica::Rid other = 0) {
  return {kind, kFolder, "name", item, other};
}

const Shown kFile1 = NameChange::Shown{11, ItemKind::file};
const Shown kFile2 = NameChange::Shown{12, ItemKind::file};
const Shown kFolder1 = NameChange::Shown{21, ItemKind::folder};
const Shown kFolder2 = NameChange::Shown{22, ItemKind::folder};

TEST(EventCall, WhatComesIsPlacedOrMade) {
  EXPECT_THAT(callsFor(change({}, kFile1)), ElementsAre(call(EventKind::placeFile, 11)));
  EXPECT_THAT(callsFor(change({}, kFolder1)), ElementsAre(call(EventKind::makeFolder, 21)));
}

TEST(EventCall, WhatGoesIsRemoved) {
  EXPECT_THAT(callsFor(change(kFile1, {})), ElementsAre(call(EventKind::removeFile, 11)));
  EXPECT_THAT(callsFor(change(kFolder1, {})), ElementsAre(call(EventKind::removeFolder, 21)));
}

TEST(EventCall, AFileThatReplacesAnotherIsPlacedAndTouched) {
  EXPECT_THAT(callsFor(change(kFile1, kFile2)),
              ElementsAre(call(EventKind::placeFile, 12, 11), call(EventKind::touch, 12)));
}

TEST(EventCall, OtherwiseWhatWasThereGoesFirst) {
  EXPECT_THAT(callsFor(change(kFile1, kFolder1)),
              ElementsAre(call(EventKind::removeFile, 11, 21), call(EventKind::makeFolder, 21)));
  EXPECT_THAT(callsFor(change(kFolder1, kFile1)),
              ElementsAre(call(EventKind::removeFolder, 21, 11), call(EventKind::placeFile, 11)));
  EXPECT_THAT(callsFor(change(kFolder1, kFolder2)),
              ElementsAre(call(EventKind::removeFolder, 21, 22), call(EventKind::makeFolder, 22)));
}

TEST(EventCall, OtherContentsOfTheSameFileAreAnotherFile) {
  EXPECT_THAT(callsFor(change(kFile1, kFile1, true)),
              ElementsAre(call(EventKind::placeFile, 11), call(EventKind::touch, 11)));
}

TEST(EventCall, OtherAttributesAreTouched) {
  EXPECT_THAT(callsFor(change(kFile1, kFile1)), ElementsAre(call(EventKind::touch, 11)));
  EXPECT_THAT(callsFor(change(kFolder1, kFolder1)), ElementsAre(call(EventKind::touch, 21)));
}

TEST(EventCall, ANameThatCameAndWentIsNotTold) {
  EXPECT_THAT(callsFor(change({}, {})), IsEmpty());
}

/// What calls that succeed make of one name.
std::optional<ItemKind> after(const std::vector<EventCall>& calls, std::optional<ItemKind> name) {
  for (const auto& each : calls) {
    switch (each.kind) {
      case EventKind::placeFile:
        EXPECT_NE(name, ItemKind::folder) << "a file over a folder is refused";
        name = ItemKind::file;
        break;
      case EventKind::makeFolder:
        EXPECT_EQ(name, std::nullopt);
        name = ItemKind::folder;
        break;
      case EventKind::removeFile:
        EXPECT_EQ(name, ItemKind::file);
        name.reset();
        break;
      case EventKind::removeFolder:
        EXPECT_EQ(name, ItemKind::folder);
        name.reset();
        break;
      case EventKind::touch:
        EXPECT_NE(name, std::nullopt);
        break;
    }
  }
  return name;
}

TEST(EventCall, EveryChangeLeadsFromWhatWasToWhatIs) {
  const std::vector<Shown> all = {{}, kFile1, kFile2, kFolder1, kFolder2};
  for (const auto& before : all) {
    for (const auto& now : all) {
      for (const bool contents : {false, true}) {
        const auto calls = callsFor(change(before, now, contents));
        const auto kind = [](const Shown& shown) {
          return shown ? std::optional(shown->kind) : std::nullopt;
        };
        EXPECT_EQ(after(calls, kind(before)), kind(now));
        EXPECT_EQ(calls.empty(), !before && !now);
        EXPECT_LE(calls.size(), 2u);
        for (const auto& each : calls) {
          EXPECT_EQ(each.folder, kFolder);
          EXPECT_EQ(each.name, "name");
        }
      }
    }
  }
}

}  // namespace
}  // namespace kestrowan::mount
