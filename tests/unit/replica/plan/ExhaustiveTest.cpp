#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "unit/replica/plan/Explorer.h"

namespace kestrowan::test {
namespace {

unsigned numberFrom(const char* variable, unsigned otherwise) {
  const char* value = std::getenv(variable);
  return value ? static_cast<unsigned>(std::strtoul(value, nullptr, 10)) : otherwise;
}

/// A set of histories, and from how many items.
struct Suite {
  const char* name;
  unsigned items;
  Bounds bounds;
};

class Counter {
 public:
  void add(const Explorer& explorer) {
    cases_ += explorer.cases();
    ends_ += explorer.ends();
  }
  void print(const char* name) const {
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begun_;
    std::printf("%s: %llu cases, %llu ends, %.1f s\n", name,
                static_cast<unsigned long long>(cases_), static_cast<unsigned long long>(ends_),
                taken.count());
    std::fflush(stdout);
  }

 private:
  std::uint64_t cases_ = 0;
  std::uint64_t ends_ = 0;
  std::chrono::steady_clock::time_point begun_ = std::chrono::steady_clock::now();
};

void runAll(const Suite& suite) {
  Counter counter;
  for (const std::string& tree : startingTrees(suite.items, suite.bounds.names)) {
    Explorer explorer(suite.bounds);
    explorer.exploreAll(PlannerWorld(tree));
    counter.add(explorer);
    ASSERT_FALSE(explorer.failure()) << suite.name << ": " << explorer.failure()->text;
  }
  counter.print(suite.name);
}

void runSample(const Suite& suite, unsigned histories, std::uint64_t seed) {
  Counter counter;
  std::mt19937_64 random(seed);
  const auto trees = startingTrees(suite.items, suite.bounds.names);
  for (unsigned i = 0; i < histories; ++i) {
    Bounds bounds = suite.bounds;
    bounds.isReversed = random() % 2 == 0;
    Explorer explorer(bounds);
    explorer.sample(PlannerWorld(trees[random() % trees.size()]), random);
    counter.add(explorer);
    ASSERT_FALSE(explorer.failure())
        << suite.name << ", KFP_SEED=" << seed << ": " << explorer.failure()->text;
  }
  counter.print(suite.name);
}

TEST(ExhaustiveTest, Scratch) {
  const std::vector<std::string> names{"a", "b", "c"};
  const std::vector<std::string> shown(names.begin(), names.begin() + numberFrom("N", 2));
  runAll({"scratch",
          numberFrom("I", 1),
          {numberFrom("L", 1), numberFrom("R", 0), numberFrom("F", 0), numberFrom("M", 0) != 0,
           numberFrom("V", 0) != 0, shown}});
}

TEST(ExhaustiveTest, ScratchSample) {
  runSample({"sample", 3, {4, 2, 2, true, false, {"a", "b", "c"}}}, numberFrom("H", 0),
            numberFrom("KFP_SEED", 1));
}

}  // namespace
}  // namespace kestrowan::test
