#include "replica/store/HistoryLimits.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <set>

#include "StoreFixture.h"
#include "async/Scope.h"

namespace kestrowan::replica::store {
namespace {

using model::Content;
using model::ItemNumber;
using model::Kind;
using ::testing::ElementsAre;

constexpr std::int64_t kGibibyte = std::int64_t{1} << 30;
/// Sizes are multiples of it, so that files take as much of the disk as they are large.
constexpr std::int64_t kBlock = 4096;
constexpr std::chrono::seconds kWeek = std::chrono::hours(7 * 24);

class HistoryLimitsTest : public StoreFixture {
 protected:
  ~HistoryLimitsTest() override { scope_.close(); }

  static std::string blocks(std::int64_t count) {
    return std::string(static_cast<std::size_t>(count * kBlock), 'x');
  }
  /// In the history, of so many blocks, `age` seconds ago.
  ContentNumber keep(std::int64_t age, std::int64_t size, Confirmed confirmed = Confirmed::once,
                     const std::string& path = "/a") {
    const ContentNumber number = plain(made(blocks(size)));
    history().keep({{.content = number,
                     .path = path,
                     .version = "1",
                     .size = size * kBlock,
                     .at = seconds() - age,
                     .confirmed = confirmed}});
    return number;
  }
  /// What is left of the history, and of the files.
  std::set<ContentNumber> left(const HistoryLimits::Settings& settings) {
    HistoryLimits limits(tree(), scope_, files(), history(), unused_, settings);
    limits.keep();
    loop_.runUntilIdle();
    std::set<ContentNumber> numbers;
    for (const Confirmed each : {Confirmed::never, Confirmed::once, Confirmed::notSent}) {
      for (const auto& entry : history().page(each, {}, 100'000)) numbers.insert(entry.content);
    }
    loop_.advance(std::chrono::seconds(10));
    const auto files = this->files().numbers();
    EXPECT_EQ(numbers, std::set<ContentNumber>(files.begin(), files.end()));
    return numbers;
  }

  async::Scope scope_{loop_};
  UnusedContents unused_{tree(),    scope_,    files(),
                         journal(), history(), [](ContentNumber) { return false; }};
};

TEST_F(HistoryLimitsTest, TellsTheHistoryItsLimit) {
  left({.size = 1000 * kBlock, .time = kWeek});
  EXPECT_EQ(history().limit(), 1000 * kBlock);
  left({.time = kWeek});
  EXPECT_EQ(history().limit(), std::min(10 * kGibibyte, files().space().capacity / 20));
}

TEST_F(HistoryLimitsTest, WhatIsTooOldGoesWithItsFile) {
  keep(kWeek.count() + 1, 5);
  keep(kWeek.count() + 1, 5, Confirmed::never);
  const auto young = keep(kWeek.count(), 5);
  EXPECT_THAT(left({.size = 1000 * kBlock, .time = kWeek}), ElementsAre(young));
}

TEST_F(HistoryLimitsTest, TheOldestThatTheProviderHadGoBeyondTheLimit) {
  const auto never = keep(50, 900, Confirmed::never);
  keep(40, 400);
  const auto younger = keep(30, 200);
  EXPECT_THAT(left({.size = 1000 * kBlock, .time = kWeek}), ElementsAre(never, younger));
}

TEST_F(HistoryLimitsTest, WhatTheProviderStillHasGoesFirst) {
  const auto older = keep(40, 7, Confirmed::once, "/elsewhere");
  keep(30, 7);
  // The provider has that version in the place that it left.
  add(Kind::file, "a", ItemNumber::root, Content::none, 7 * kBlock);
  EXPECT_THAT(left({.size = 10 * kBlock, .time = kWeek}), ElementsAre(older));
}

TEST_F(HistoryLimitsTest, WhatKeepsTheDiskFullGoesWhateverTheLimit) {
  keep(40, 5);
  const auto never = keep(30, 5, Confirmed::never);
  EXPECT_THAT(left({.size = 1000 * kBlock, .time = kWeek, .freeSpaceFloor = INT64_MAX}),
              ElementsAre(never));
}

TEST_F(HistoryLimitsTest, GoesOnThroughAnyNumberOfRows) {
  std::vector<HistoryEntry> entries;
  for (ContentNumber i = 0; i < 1000; ++i) {
    const auto number = 1'000'000 + i;
    entries.push_back({.content = number,
                       .size = kBlock,
                       .at = seconds() - 2000 + static_cast<std::int64_t>(i),
                       .confirmed = Confirmed::once});
    writeFile(files().path(number), blocks(1));
  }
  history().keep(entries);
  EXPECT_EQ(left({.size = 100 * kBlock, .time = kWeek}).size(), 100U);
  EXPECT_EQ(left({.size = 10 * kBlock, .time = kWeek}).size(), 10U);
}

TEST_F(HistoryLimitsTest, IsKeptOnceAtATime) {
  HistoryLimits limits(tree(), scope_, files(), history(), unused_,
                       {.size = 1 * kBlock, .time = kWeek});
  for (int i = 0; i < 600; ++i) keep(10, 1);
  limits.keep();
  limits.keep();
  loop_.runUntilIdle();
  EXPECT_EQ(history().usage().files, 1);
  keep(5, 1);
  limits.keep();
  loop_.runUntilIdle();
  EXPECT_EQ(history().usage().files, 1) << "and again later";
}

}  // namespace
}  // namespace kestrowan::replica::store
