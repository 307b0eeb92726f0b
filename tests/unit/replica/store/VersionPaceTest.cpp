#include "replica/store/VersionPace.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrowan::replica {
namespace {

constexpr std::int64_t kMinute = 60'000;

TEST(VersionPaceTest, OneVersionAMinuteIsKept) {
  VersionPace pace;
  EXPECT_TRUE(pace.isDue("/a", 0));
  pace.noteKept("/a", 0);
  EXPECT_FALSE(pace.isDue("/a", kMinute - 1));
  EXPECT_TRUE(pace.isDue("/a", kMinute));
  EXPECT_TRUE(pace.isDue("/b", 1)) << "another file";
}

TEST(VersionPaceTest, CopiesTakeATwentiethOfTheTime) {
  VersionPace pace;
  pace.noteKept("/a", 0, 10'000);
  EXPECT_FALSE(pace.isDue("/a", 189'999));
  EXPECT_TRUE(pace.isDue("/a", 190'000));
}

TEST(VersionPaceTest, WhatAProgramBeganToWriteIsASaveForAMinute) {
  VersionPace pace;
  EXPECT_FALSE(pace.isSave(7, 0));
  pace.noteWritten(7, 0);
  EXPECT_TRUE(pace.isSave(7, kMinute - 1));
  EXPECT_FALSE(pace.isSave(8, 1));
  EXPECT_FALSE(pace.isSave(7, kMinute));
  pace.noteWritten(7, kMinute);
  EXPECT_TRUE(pace.isSave(7, 2 * kMinute - 1));
}

TEST(VersionPaceTest, WhatIsDueAnyhowIsForgotten) {
  VersionPace pace;
  for (std::int64_t i = 0; i < 50'000; ++i) {
    pace.noteKept(std::to_string(i), i * 1000);
    pace.noteWritten(i, i * 1000);
  }
  EXPECT_LE(pace.size(), 3000u);
  EXPECT_FALSE(pace.isDue("49999", 49'999 * std::int64_t{1000} + 1));
}

}  // namespace
}  // namespace kestrowan::replica
