#include "replica/calls/Lookups.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace kestrowan::replica::calls {
namespace {

using model::ItemNumber;

TEST(LookupsTest, AnItemIsKnownUntilItIsForgottenAsOftenAsItWasLookedUp) {
  Lookups lookups;
  const ItemNumber item{7};
  EXPECT_FALSE(lookups.has(item));
  lookups.add(item);
  lookups.add(item);
  lookups.add(item);
  lookups.take(item, 2);
  EXPECT_TRUE(lookups.has(item));
  lookups.take(item, 1);
  EXPECT_FALSE(lookups.has(item));
}

TEST(LookupsTest, NeighboursAreCountedApart) {
  Lookups lookups;
  for (std::uint64_t number = 1; number <= 1000; ++number) lookups.add(ItemNumber{number});
  for (std::uint64_t number = 1; number <= 1000; number += 2) lookups.take(ItemNumber{number}, 1);
  for (std::uint64_t number = 1; number <= 1000; ++number) {
    EXPECT_EQ(lookups.has(ItemNumber{number}), number % 2 == 0) << number;
  }
}

TEST(LookupsTest, WhatIsForgottenTooOftenIsNotKnown) {
  Lookups lookups;
  const ItemNumber item{std::numeric_limits<std::uint64_t>::max()};
  lookups.take(item, 1);
  lookups.add(item);
  lookups.take(item, 5);
  lookups.take(item, 1);
  EXPECT_FALSE(lookups.has(item));
  lookups.add(item);
  EXPECT_TRUE(lookups.has(item));
}

}  // namespace
}  // namespace kestrowan::replica::calls
