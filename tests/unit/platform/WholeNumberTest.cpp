#include "platform/foundation/WholeNumber.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace kestrowan {
namespace {

constexpr auto kMaximum = std::numeric_limits<std::int64_t>::max();
constexpr auto kMinimum = std::numeric_limits<std::int64_t>::min();

TEST(WholeNumberTest, NumbersWithoutAFractionAreWhole) {
  for (const auto* token : {"8443", "8443.0", "8443.000", "8443e0", "8443E+0", "8.443e3",
                            "84430e-1", "844300.0E-2", "0.08443e5", "8443e-0"}) {
    EXPECT_EQ(wholeNumberFromJSONToken(token), 8443) << token;
  }
  EXPECT_EQ(wholeNumberFromJSONToken("-8.443e3"), -8443);
}

TEST(WholeNumberTest, ZeroIsWholeHoweverWritten) {
  for (const auto* token : {"0", "-0", "0.0", "-0.000", "0e5", "0e-5", "0E+99999999999999999999",
                            "0.0e-99999999999999999999"}) {
    EXPECT_EQ(wholeNumberFromJSONToken(token), 0) << token;
  }
}

TEST(WholeNumberTest, FractionsAreNotWhole) {
  for (const auto* token : {"8443.5", "0.1", "1e-1", "8443e-1", "1e-400", "12e-2",
                            "8443.0000000000000000001", "1e-99999999999999999999"}) {
    EXPECT_EQ(wholeNumberFromJSONToken(token), std::nullopt) << token;
  }
}

TEST(WholeNumberTest, TheWholeRangeIsExact) {
  EXPECT_EQ(wholeNumberFromJSONToken("9223372036854775807"), kMaximum);
  EXPECT_EQ(wholeNumberFromJSONToken("9223372036854775807.0"), kMaximum);
  EXPECT_EQ(wholeNumberFromJSONToken("-9223372036854775808.0"), kMinimum);
  EXPECT_EQ(wholeNumberFromJSONToken("9.223372036854775807e18"), kMaximum);
  EXPECT_EQ(wholeNumberFromJSONToken("9007199254740993.0"), 9007199254740993);
}

TEST(WholeNumberTest, NumbersBeyondTheRangeAreNone) {
  for (const auto* token :
       {"9223372036854775808", "9223372036854775808.0", "-9223372036854775809", "1e19", "1e400",
        "1e99999999999999999999", "123456789012345678901234567890"}) {
    EXPECT_EQ(wholeNumberFromJSONToken(token), std::nullopt) << token;
  }
}

TEST(WholeNumberTest, LongTokensAreReadToo) {
  const std::string zeros(100'000, '0');
  EXPECT_EQ(wholeNumberFromJSONToken("5." + zeros), 5);
  EXPECT_EQ(wholeNumberFromJSONToken("5" + zeros + "e-100000"), 5);
  EXPECT_EQ(wholeNumberFromJSONToken("0." + zeros + "5e100001"), 5);
  EXPECT_EQ(wholeNumberFromJSONToken("5" + zeros), std::nullopt);
}

}  // namespace
}  // namespace kestrowan
