#include "replica/store/HistoryTrim.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "TreeFixture.h"
#include "replica/store/History.h"
#include "support/SimulatedLoop.h"

namespace kestrowan::replica::store {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Which entries stay when a history of some is brought within its limits.
class HistoryTrimTest : public TreeFixture {
 protected:
  void put(ContentNumber content, std::int64_t at, std::int64_t size, Confirmed confirmed) {
    history_.keep(
        {{.content = content, .size = size, .reason = reason_, .at = at, .confirmed = confirmed}});
  }
  std::set<ContentNumber> left(std::int64_t bytes, std::int64_t before = 0) {
    auto trim = history_.beginTrim({.bytes = bytes, .before = before});
    while (!trim.isDone()) {
      auto page = history_.next(trim);
      history_.remove(
          trim.choose(std::move(page), history_.usage(),
                      [&](const HistoryEntry& entry) { return there_.contains(entry.content); }));
    }
    std::set<ContentNumber> numbers;
    HistoryTable(journal().database()).load([&](const HistoryEntry& entry) {
      numbers.insert(entry.content);
    });
    EXPECT_EQ(history_.usage().files, static_cast<std::int64_t>(numbers.size()));
    return numbers;
  }

  HistoryReason reason_ = HistoryReason::replaced;
  std::set<ContentNumber> there_;
  test::SimulatedLoop loop_;
  ContentFiles files_{directory()};
  History history_{journal(), files_, loop_};
};

TEST_F(HistoryTrimTest, WithinTheLimitsEverythingStays) {
  put(2, 10, 5, Confirmed::once);
  put(3, 11, 5, Confirmed::notSent);
  put(4, 12, 5, Confirmed::never);
  EXPECT_THAT(left(15), ElementsAre(2, 3, 4));
}

TEST_F(HistoryTrimTest, TheOldestThatTheProviderHadOnceGoFirst) {
  put(2, 30, 4, Confirmed::once);
  put(3, 10, 4, Confirmed::once);
  put(4, 20, 4, Confirmed::once);
  EXPECT_THAT(left(11), ElementsAre(2, 4));
}

TEST_F(HistoryTrimTest, WhatTheProviderStillHasGoesBeforeWhatItHadOnce) {
  put(2, 10, 4, Confirmed::once);
  put(3, 20, 4, Confirmed::once);
  put(4, 30, 4, Confirmed::once);
  there_ = {4};
  EXPECT_THAT(left(8), ElementsAre(2, 3));
}

TEST_F(HistoryTrimTest, WhatIsNeverSentGoesFirst) {
  put(2, 10, 4, Confirmed::once);
  put(3, 20, 4, Confirmed::notSent);
  there_ = {2};
  EXPECT_THAT(left(4), ElementsAre(2));
}

TEST_F(HistoryTrimTest, WhatTheProviderNeverHadStaysWhateverItTakes) {
  for (ContentNumber content = 2; content < 1000; ++content) {
    put(content, 10, 1'000'000, Confirmed::never);
  }
  EXPECT_EQ(left(1).size(), 998u);
}

TEST_F(HistoryTrimTest, WhatIsNeverGivenUpLeavesTheRestAQuarter) {
  put(2, 10, 1000, Confirmed::never);
  put(3, 20, 20, Confirmed::once);
  put(4, 30, 20, Confirmed::once);
  EXPECT_THAT(left(100), ElementsAre(2, 4));
}

TEST_F(HistoryTrimTest, OneLargeFileDoesNotEmptyTheRest) {
  put(2, 10, 5, Confirmed::once);
  put(3, 20, 5, Confirmed::once);
  put(4, 30, 900, Confirmed::once);
  put(5, 40, 5, Confirmed::once);
  EXPECT_THAT(left(100), ElementsAre(2, 3, 5));
}

TEST_F(HistoryTrimTest, WhatIsTooOldGoesWhetherItWasSentOrNot) {
  put(2, 10, 1, Confirmed::never);
  put(3, 10, 1, Confirmed::once);
  put(4, 10, 1, Confirmed::notSent);
  put(5, 11, 1, Confirmed::never);
  put(6, 11, 1, Confirmed::once);
  EXPECT_THAT(left(100, 11), ElementsAre(5, 6));
}

TEST_F(HistoryTrimTest, WhatIsLeftOfALostDatabaseIsNeverTooOld) {
  reason_ = HistoryReason::lost;
  put(2, 10, 1, Confirmed::never);
  EXPECT_THAT(left(100, 11), ElementsAre(2));
}

TEST_F(HistoryTrimTest, LooksAtAsManyAsThereAre) {
  constexpr ContentNumber kMany = 1000;
  for (ContentNumber content = 2; content < kMany; ++content) {
    put(content, static_cast<std::int64_t>(content), 1, Confirmed::once);
  }
  there_ = {kMany - 1};
  const auto numbers = left(10);
  EXPECT_EQ(numbers.size(), 10u);
  EXPECT_EQ(*numbers.rbegin(), kMany - 2);
  EXPECT_THAT(left(0), IsEmpty());
}

}  // namespace
}  // namespace kestrowan::replica::store
