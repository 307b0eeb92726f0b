#include "platform/foundation/NSUUID.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace kestrowan {
namespace {

TEST(NSUUIDTest, UUIDsAreUpperCaseAndOfVersionFour) {
  for (int i = 0; i < 200; ++i) {
    EXPECT_THAT(newUUIDString(),
                testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-"
                                      "[0-9A-F]{12}"));
  }
}

TEST(NSUUIDTest, UUIDsDoNotRepeat) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) seen.insert(newUUIDString());
  EXPECT_EQ(seen.size(), 1000U);
}

}  // namespace
}  // namespace kestrowan
