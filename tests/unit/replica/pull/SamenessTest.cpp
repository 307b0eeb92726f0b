#include "replica/pull/Sameness.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace kestrowan::replica::pull {
namespace {

using model::There;

/// A provider whose versions have "~" before them as long as they are fresh, and which answers with
/// "none" when it knows no version.
Options options() {
  Options result;
  result.lastingPart = [](const NSData& version) {
    return version.starts_with('~') ? version.substr(1) : version;
  };
  result.saysNothing = [](const NSData& version) { return version == "none"; };
  return result;
}

There state(const NSData& version, std::int64_t size, std::optional<std::int64_t> date,
            Source source = Source::look) {
  There there;
  there.isVersionKnown = isVersionKnown(options(), version, source);
  there.version.text = keptVersion(options(), version);
  there.size = size;
  if (date) there.date = model::Date(std::chrono::seconds(*date));
  return there;
}

/// What a version is, apart from its bytes: which contents it stands for, if any.
struct Version {
  std::string bytes;
  Source source;
  /// 0 when it says nothing.
  int contents;
};

std::vector<Version> versions() {
  const std::string overlong(500, 'v');
  const std::string limit(128, 'v');
  return {{"", Source::look, 0},
          {"", Source::answer, 0},
          {"none", Source::answer, 0},
          {"none", Source::look, 1},
          {"a", Source::look, 2},
          {"a", Source::answer, 2},
          {"~a", Source::answer, 2},
          {"b", Source::look, 3},
          {overlong, Source::look, 4},
          {"~" + overlong, Source::answer, 4},
          {overlong + "x", Source::look, 5},
          {"x" + overlong, Source::look, 6},
          {limit, Source::look, 7},
          {"~" + limit, Source::answer, 7},
          {limit.substr(1), Source::look, 8},
          {limit + "v", Source::look, 9},
          {"~" + limit + "v", Source::look, 9}};
}

TEST(Sameness, IsDecidedByVersionSizeAndDateInEveryCase) {
  const std::vector<std::optional<std::int64_t>> dates{std::nullopt, 5, 6};
  std::size_t cases = 0;
  for (const auto& first : versions()) {
    for (const auto& second : versions()) {
      for (const auto& knownDate : dates) {
        for (const auto& date : dates) {
          for (const std::int64_t size : {1, 2}) {
            const There known = state(first.bytes, 1, knownDate, first.source);
            const There now = state(second.bytes, size, date, second.source);
            Sameness expected = Sameness::likely;
            if (size != 1) {
              expected = Sameness::different;
            } else if (first.contents != 0 && second.contents != 0) {
              // Versions that differ in passing are the same only when the dates are, too.
              const bool isSame = first.contents == second.contents &&
                                  (known.version == now.version || knownDate == date);
              expected = isSame ? Sameness::same : Sameness::different;
            } else if (knownDate && date && *knownDate != *date) {
              expected = Sameness::different;
            }
            ASSERT_EQ(sameness(options(), known, now), expected)
                << first.bytes << " " << second.bytes << " " << knownDate.value_or(0) << " "
                << date.value_or(0) << " " << size;
            ASSERT_EQ(canBeSame(options(), known, now), expected != Sameness::different);
            ++cases;
          }
        }
      }
    }
  }
  EXPECT_EQ(cases, 17u * 17 * 9 * 2);
}

TEST(Sameness, AVersionIsKeptInABoundedPlace) {
  for (const auto& version : versions()) {
    const auto kept = keptVersion(options(), version.bytes);
    EXPECT_LE(kept.size(), 128u);
    if (version.bytes.size() <= 128) {
      EXPECT_EQ(kept, version.bytes);
    }
    EXPECT_EQ(keptVersion(options(), kept), kept);
  }
}

TEST(Sameness, WithoutRulesOfTheProvidersEveryVersionCounts) {
  const Options plain;
  EXPECT_TRUE(isVersionKnown(plain, "none", Source::answer));
  EXPECT_FALSE(isVersionKnown(plain, "", Source::look));
  There weak = state("~a", 1, 5);
  const There strong = state("a", 1, 5);
  EXPECT_EQ(sameness(plain, weak, strong), Sameness::different);
}

TEST(Sameness, AnotherStateOfTheSameVersionIsToldApartByItsSizeAndDate) {
  const There known = state("", 1, 5);
  const There later = asOtherState(known, state("", 1, 6));
  const There larger = asOtherState(known, state("", 2, 5));
  EXPECT_NE(later.version, known.version);
  EXPECT_NE(later.version, larger.version);
  EXPECT_EQ(plainVersion(later.version.text), "");
  const There named = asOtherState(state("a", 1, 5), state("a", 2, 5));
  EXPECT_EQ(plainVersion(named.version.text), "a");
  EXPECT_EQ(asOtherState(known, state("b", 1, 5)).version.text, "b");
}

}  // namespace
}  // namespace kestrowan::replica::pull
