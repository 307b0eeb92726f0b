#include "platform/foundation/NSProgress.h"

#include <gtest/gtest.h>

#include "support/Cases.h"

namespace kestrowan {
namespace {

JSONValue counts(const NSProgress& progress) {
  return JSONValue::Object{{"totalUnitCount", progress.totalUnitCount()},
                           {"completedUnitCount", progress.completedUnitCount()},
                           {"fractionCompleted", progress.fractionCompleted()}};
}

TEST(NSProgressTest, NewProgressIsAsExpected) {
  test::checkCases("platform-constants", "new_progress",
                   [](const test::Case&) { return counts(NSProgress()); });
}

TEST(NSProgressTest, FractionFollowsTheCompletedUnits) {
  NSProgress progress(100);
  EXPECT_EQ(progress.fractionCompleted(), 0);
  progress.setCompletedUnitCount(25);
  EXPECT_EQ(progress.completedUnitCount(), 25);
  EXPECT_EQ(progress.fractionCompleted(), 0.25);
  progress.setCompletedUnitCount(100);
  EXPECT_EQ(progress.fractionCompleted(), 1);
}

}  // namespace
}  // namespace kestrowan
