#include "mount/RefusedReads.h"

#include <gtest/gtest.h>

namespace kestrowan::mount {
namespace {

TEST(RefusedReadsTest, WhatWasRefusedIsNotRefusedAgain) {
  RefusedReads reads;
  EXPECT_TRUE(reads.refuse(8192, 8192));
  EXPECT_FALSE(reads.refuse(8192, 8192));
  EXPECT_FALSE(reads.refuse(8192, 4096));
  EXPECT_FALSE(reads.refuse(12288, 4096));
  EXPECT_FALSE(reads.refuse(0, 8193));
  EXPECT_TRUE(reads.refuse(0, 8192));
  EXPECT_TRUE(reads.refuse(16384, 4096));
}

TEST(RefusedReadsTest, RefusalsHaveAnEnd) {
  RefusedReads reads;
  int refused = 0;
  for (off_t at = 0; at < 100000; ++at) refused += reads.refuse(at * 4096, 4096) ? 1 : 0;
  EXPECT_LT(refused, 1000);
}

}  // namespace
}  // namespace kestrowan::mount
