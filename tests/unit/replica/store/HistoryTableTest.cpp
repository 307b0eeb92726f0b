#include "replica/store/HistoryTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "TreeFixture.h"

namespace kestrowan::replica::store {
namespace {

using namespace std::string_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

HistoryEntry entry(ContentNumber content, std::int64_t at, Confirmed confirmed = Confirmed::never) {
  return {.content = content,
          .item = 3,
          .path = "/a\n\xFF\0b"s,
          .version = "v\0 1"s,
          .size = 12,
          .allocated = 4096,
          .modified = -5,
          .reason = HistoryReason::updated,
          .at = at,
          .confirmed = confirmed};
}

class HistoryTableTest : public TreeFixture {
 protected:
  /// Of the database that is open now.
  HistoryTable table() { return HistoryTable(journal().database()); }
  void keep(const HistoryEntry& one) {
    journal().change([&] { table().put(one); });
  }
  std::vector<HistoryEntry> all() {
    std::vector<HistoryEntry> entries;
    table().load([&](const HistoryEntry& one) { entries.push_back(one); });
    return entries;
  }
  static std::vector<ContentNumber> numbers(const std::vector<HistoryEntry>& entries) {
    std::vector<ContentNumber> numbers;
    for (const auto& one : entries) numbers.push_back(one.content);
    return numbers;
  }
};

TEST_F(HistoryTableTest, RowsAreWhatWasPut) {
  keep(entry(7, 100));
  reopen();
  EXPECT_THAT(all(), ElementsAre(entry(7, 100)));
  EXPECT_EQ(table().find(7), entry(7, 100));
  EXPECT_EQ(table().find(8), std::nullopt);
  journal().change([&] { table().remove(7); });
  EXPECT_THAT(all(), IsEmpty());
}

TEST_F(HistoryTableTest, PagesAreOfOneKindInTheOrderOfTheirAge) {
  for (const auto& [content, at] : {std::pair{9, 100}, {8, 100}, {7, 300}, {6, 200}}) {
    keep(entry(static_cast<ContentNumber>(content), at));
  }
  keep(entry(5, 50, Confirmed::once));
  EXPECT_THAT(numbers(table().page(Confirmed::never, {}, 3)), ElementsAre(8, 9, 6));
  EXPECT_THAT(numbers(table().page(Confirmed::never, {200, 6}, 3)), ElementsAre(7));
  EXPECT_THAT(numbers(table().page(Confirmed::once, {}, 3)), ElementsAre(5));
  EXPECT_THAT(numbers(table().page(Confirmed::notSent, {}, 3)), IsEmpty());
}

TEST_F(HistoryTableTest, RowsBecomeTrueTogetherOrNotAtAll) {
  const auto change = [&] {
    journal().change([&] {
      table().put(entry(7, 100));
      throw posixError(EIO);
    });
  };
  EXPECT_THROW(change(), NSError);
  EXPECT_THAT(all(), IsEmpty());
  keep(entry(7, 100));
  EXPECT_THAT(numbers(all()), ElementsAre(7));
}

TEST_F(HistoryTableTest, RowsThatMakeNoSenseAreLeftOut) {
  for (ContentNumber content = 1; content < 9; ++content) keep(entry(content, 100));
  reopen(
      "UPDATE history SET size=-1 WHERE content=1;"
      "UPDATE history SET reason=99 WHERE content=2;"
      "UPDATE history SET confirmed=-1 WHERE content=3;"
      "UPDATE history SET at=9223372036854775807 WHERE content=4;"
      "UPDATE history SET content=-5 WHERE content=5;"
      "UPDATE history SET size=9223372036854775807 WHERE content=6;"
      "UPDATE history SET allocated=-1 WHERE content=8");
  EXPECT_THAT(numbers(all()), ElementsAre(7));
  EXPECT_THAT(numbers(table().page(Confirmed::never, {}, 10)), ElementsAre(7));
  EXPECT_EQ(table().find(1), std::nullopt);
}

}  // namespace
}  // namespace kestrowan::replica::store
