#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "unit/replica/plan/Explorer.h"

namespace kestrowan::test {
namespace {

const std::vector<std::string> kTwoNames{"a", "b"};
const std::vector<std::string> kThreeNames{"a", "b", "c"};

unsigned numberFrom(const char* variable, unsigned otherwise) {
  const char* value = std::getenv(variable);
  return value ? static_cast<unsigned>(std::strtoul(value, nullptr, 10)) : otherwise;
}

/// How far KFP_EXHAUSTIVE says to go: 0 for a few whole sets and a sample, 3 for all sets as a
/// whole, 4 for a sample one step further.
unsigned extent() {
  return numberFrom("KFP_EXHAUSTIVE", 0);
}

/// Histories from all trees of so many items.
struct Suite {
  const char* name;
  unsigned items;
  Bounds bounds;
};

/// here, there, faults, slow; whether the engine works between the changes, and takes the last step
/// first.
constexpr bool kBetween = true;
constexpr bool kAfter = false;
constexpr bool kReversed = true;

const std::vector<Suite> kSmall{
    {"2 items, 2 here, 1 fault", 2, {2, 0, 1, 0, kAfter, false, kTwoNames}},
    {"2 items, 2 here, 1 slow", 2, {2, 0, 0, 1, kBetween, false, kTwoNames}},
    {"1 item, 1 here, 1 there, 1 fault", 1, {1, 1, 1, 0, kBetween, false, kTwoNames}},
    {"1 item, 1 here, 1 there, 1 slow", 1, {1, 1, 0, 1, kBetween, false, kTwoNames}},
    {"2 items, 1 here, 1 there", 2, {1, 1, 0, 0, kAfter, kReversed, kTwoNames}},
};

/// The longer ones last: the last two contain most of the others of three items, and take too long
/// to be waited for.
const std::vector<Suite> kAll{
    {"1 item, 1 here, 1 there, 1 fault, 1 slow", 1, {1, 1, 1, 1, kBetween, false, kTwoNames}},
    {"2 items, 2 here, 1 fault", 2, {2, 0, 1, 0, kBetween, false, kTwoNames}},
    {"1 item, 2 here, 1 there, 1 fault", 1, {2, 1, 1, 0, kBetween, false, kTwoNames}},
    {"1 item, 2 here, 1 there, 1 slow", 1, {2, 1, 0, 1, kBetween, false, kTwoNames}},
    {"2 items, 2 here, 2 slow", 2, {2, 0, 0, 2, kBetween, false, kTwoNames}},
    {"2 items, 2 here, 1 there, 1 fault", 2, {2, 1, 1, 0, kAfter, false, kTwoNames}},
    {"2 items, 2 here, 1 there, 1 fault, reversed", 2, {2, 1, 1, 0, kAfter, kReversed, kTwoNames}},
    {"2 items, 2 here, 1 there, 1 slow", 2, {2, 1, 0, 1, kBetween, kReversed, kTwoNames}},
    {"3 items, 2 there, 1 slow", 3, {0, 2, 0, 1, kAfter, false, kThreeNames}},
    {"3 items, 3 here", 3, {3, 0, 0, 0, kAfter, false, kThreeNames}},
    {"3 items, 2 here, 2 slow", 3, {2, 0, 0, 2, kAfter, false, kThreeNames}},
    {"2 items, 1 here, 2 there, 1 fault", 2, {1, 2, 1, 0, kBetween, false, kTwoNames}},
    {"2 items, 2 here, 1 there, 1 fault, between", 2, {2, 1, 1, 0, kBetween, false, kTwoNames}},
    {"2 items, 2 here, 1 fault, 1 slow", 2, {2, 0, 1, 1, kBetween, false, kTwoNames}},
    {"3 items, 2 here, 1 fault", 3, {2, 0, 1, 0, kAfter, false, kThreeNames}},
    {"3 items, 1 here, 1 there, 1 fault", 3, {1, 1, 1, 0, kAfter, false, kThreeNames}},
    {"3 items, 1 here, 2 there", 3, {1, 2, 0, 0, kAfter, false, kThreeNames}},
    {"3 items, 3 here, 1 fault", 3, {3, 0, 1, 0, kAfter, false, kThreeNames}},
    {"3 items, 3 here, 1 there", 3, {3, 1, 0, 0, kAfter, false, kThreeNames}},
    {"3 items, 2 here, 1 there, 1 fault", 3, {2, 1, 1, 0, kAfter, false, kThreeNames}},
    {"3 items, 3 here, 1 there, 1 fault", 3, {3, 1, 1, 0, kAfter, false, kThreeNames}},
    {"3 items, 3 here, 2 there, 1 fault", 3, {3, 2, 1, 0, kAfter, false, kThreeNames}},
};

/// The set that KFP_SLICE asks for: the numbers of items, changes here and there, faults and slow
/// requests, with commas between them; then "between", "reversed", or both. The engine begins from
/// one in KFP_SHARE of the states that the changes lead to, if it begins after the last one.
Suite sliceOf(const char* text) {
  std::array<unsigned, 5> numbers{};
  const char* at = text;
  for (unsigned& number : numbers) {
    char* end = nullptr;
    number = static_cast<unsigned>(std::strtoul(at, &end, 10));
    at = *end == ',' ? end + 1 : end;
  }
  const auto [items, here, there, faults, slow] = numbers;
  const std::string words = at;
  const bool isBetween = words.find("between") != std::string::npos;
  const bool isReversed = words.find("reversed") != std::string::npos;
  return {text,
          items,
          {here, there, faults, slow, isBetween, isReversed, items > 2 ? kThreeNames : kTwoNames,
           std::max(numberFrom("KFP_SHARE", 1), 1U)}};
}

class Counter {
 public:
  void add(const Explorer& explorer) {
    cases_ += explorer.cases();
    ends_ += explorer.ends();
  }
  void print(const std::string& name) const {
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begun_;
    std::printf("%s: %llu cases, %llu ends, %.1f s\n", name.c_str(),
                static_cast<unsigned long long>(cases_), static_cast<unsigned long long>(ends_),
                taken.count());
    std::fflush(stdout);
  }

 private:
  std::uint64_t cases_ = 0;
  std::uint64_t ends_ = 0;
  std::chrono::steady_clock::time_point begun_ = std::chrono::steady_clock::now();
};

void runWhole(const Suite& suite) {
  Counter counter;
  Explorer explorer(suite.bounds);
  for (const std::string& tree : startingTrees(suite.items, suite.bounds.names)) {
    explorer.exploreAll(PlannerWorld(tree));
    ASSERT_FALSE(explorer.failure()) << suite.name << ": " << explorer.failure()->text;
  }
  counter.add(explorer);
  counter.print(suite.name);
}

void runSample(const Suite& suite, unsigned histories) {
  const std::uint64_t seed =
      std::getenv("KFP_SEED") ? numberFrom("KFP_SEED", 0) : std::random_device{}();
  std::printf("KFP_SEED=%llu\n", static_cast<unsigned long long>(seed));
  Counter counter;
  std::mt19937_64 random(seed);
  const auto trees = startingTrees(suite.items, suite.bounds.names);
  for (unsigned i = 0; i < histories; ++i) {
    Bounds bounds = suite.bounds;
    bounds.isInterleaved = random() % 4 != 0;
    bounds.isReversed = random() % 2 == 0;
    Explorer explorer(bounds);
    explorer.sample(PlannerWorld(trees[random() % trees.size()]), random);
    counter.add(explorer);
    ASSERT_FALSE(explorer.failure())
        << suite.name << ", KFP_SEED=" << seed << ": " << explorer.failure()->text;
  }
  counter.print(suite.name);
}

/// What was run is printed as it is done; tests/README.md says how long it takes.
TEST(ExhaustiveTest, EveryShortHistoryEndsInStepAndLosesNothing) {
  if (const char* text = std::getenv("KFP_SLICE")) return runWhole(sliceOf(text));
  for (const Suite& suite : extent() == 3 ? kAll : kSmall) {
    ASSERT_NO_FATAL_FAILURE(runWhole(suite));
  }
}

/// KFP_SEED names the sample, KFP_HISTORIES says how many histories it has.
TEST(ExhaustiveTest, LongerHistoriesEndInStepAndLoseNothing) {
  const bool isFurther = extent() >= 4;
  const Suite suite{isFurther ? "sample, 3 items, up to 5 here, 3 there, 2 faults"
                              : "sample, 3 items, up to 4 here, 2 there, 2 faults",
                    3,
                    {isFurther ? 5U : 4U, isFurther ? 3U : 2U, 2, 3, kBetween, false, kThreeNames}};
  ASSERT_NO_FATAL_FAILURE(runSample(suite, numberFrom("KFP_HISTORIES", isFurther ? 100000 : 500)));
}

}  // namespace
}  // namespace kestrowan::test
