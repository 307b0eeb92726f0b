#include "replica/model/Slabs.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

namespace kestrowan::replica::model {
namespace {

constexpr std::size_t kSize = 40;
/// Of that size; more than a few blocks have.
constexpr std::size_t kMany = 30'000;

std::vector<void*> takeMany(Slabs& slabs, std::size_t count = kMany) {
  std::vector<void*> records;
  for (std::size_t i = 0; i < count; ++i) {
    records.push_back(slabs.take(kSize));
    std::memset(records.back(), static_cast<int>(i % 251), kSize);
  }
  return records;
}

void giveBack(Slabs& slabs, const std::vector<void*>& records) {
  for (void* record : records) slabs.giveBack(record, kSize);
}

bool isKept(const void* record, std::size_t number) {
  const auto* bytes = static_cast<const unsigned char*>(record);
  for (std::size_t i = 0; i < kSize; ++i) {
    if (bytes[i] != number % 251) return false;
  }
  return true;
}

TEST(SlabsTest, RecordsAreApartAndKeepTheirBytes) {
  Slabs slabs;
  const auto records = takeMany(slabs);
  for (std::size_t i = 0; i < records.size(); ++i) ASSERT_TRUE(isKept(records[i], i)) << i;
  giveBack(slabs, records);
}

TEST(SlabsTest, RecordsOfOneSizeLieSideBySide) {
  Slabs slabs;
  const auto records = takeMany(slabs, 100);
  for (std::size_t i = 1; i < records.size(); ++i) {
    const auto before = reinterpret_cast<std::uintptr_t>(records[i - 1]);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(records[i]), before + kSize);
  }
  EXPECT_EQ(slabs.blocks(), 1U);
  giveBack(slabs, records);
}

TEST(SlabsTest, AreAlignedWhateverTheirSize) {
  Slabs slabs;
  for (std::size_t size = 0; size <= Slabs::kLargest + 64; ++size) {
    void* record = slabs.take(size);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(record) % Slabs::kAlignment, 0U) << size;
    std::memset(record, 1, size);
    slabs.giveBack(record, size);
  }
}

TEST(SlabsTest, BlocksGoBackWithTheirLastRecords) {
  Slabs slabs;
  const auto records = takeMany(slabs);
  const std::size_t most = slabs.blocks();
  EXPECT_GT(most, 3U);
  giveBack(slabs, records);
  EXPECT_EQ(slabs.blocks(), 1U);
}

TEST(SlabsTest, WhatWasGivenBackIsTakenAgainFirst) {
  Slabs slabs;
  auto records = takeMany(slabs);
  const std::size_t blocks = slabs.blocks();
  std::set<void*> given;
  for (std::size_t i = 0; i < records.size(); i += 3) {
    given.insert(records[i]);
    slabs.giveBack(records[i], kSize);
  }
  for (std::size_t i = 0; i < records.size(); i += 3) {
    records[i] = slabs.take(kSize);
    EXPECT_TRUE(given.contains(records[i]));
  }
  EXPECT_EQ(slabs.blocks(), blocks);
  giveBack(slabs, records);
}

TEST(SlabsTest, OneBlockServesARecordThatComesAndGoes) {
  Slabs slabs;
  for (int i = 0; i < 10; ++i) {
    giveBack(slabs, takeMany(slabs, 1));
    EXPECT_EQ(slabs.blocks(), 1U);
  }
}

TEST(SlabsTest, ThreadsMayGiveBackWhatOthersTook) {
  Slabs slabs;
  std::vector<std::vector<void*>> taken(4);
  std::vector<std::thread> threads;
  for (auto& records : taken) {
    threads.emplace_back([&slabs, &records] { records = takeMany(slabs); });
  }
  for (auto& thread : threads) thread.join();
  threads.clear();
  for (const auto& records : taken) {
    for (std::size_t i = 0; i < records.size(); ++i) ASSERT_TRUE(isKept(records[i], i));
    threads.emplace_back([&slabs, &records] { giveBack(slabs, records); });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(slabs.blocks(), 1U);
}

}  // namespace
}  // namespace kestrowan::replica::model
