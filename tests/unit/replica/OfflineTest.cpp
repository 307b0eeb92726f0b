#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/NSError.h"
#include "support/ReplicaWorld.h"

namespace kestrowan::test {
namespace {

using std::chrono::seconds;

/// What a program does without a server, and what another client does meanwhile.
struct Step {
  std::string name;
  std::function<void(ReplicaWorld& world, const std::string& token)> take;
};

const std::vector<Step>& here() {
  static const std::vector<Step> steps{
      {"write a", [](auto& world, const auto& token) { world.write("/a", token); }},
      {"write b", [](auto& world, const auto& token) { world.write("/b", token); }},
      {"remove a", [](auto& world, const auto&) { world.remove("/a"); }},
      {"remove b", [](auto& world, const auto&) { world.remove("/b"); }},
      {"rename a b", [](auto& world, const auto&) { world.rename("/a", "/b"); }},
      {"rename b a", [](auto& world, const auto&) { world.rename("/b", "/a"); }},
      {"rename a c", [](auto& world, const auto&) { world.rename("/a", "/c"); }},
      {"rename c a", [](auto& world, const auto&) { world.rename("/c", "/a"); }},
  };
  return steps;
}

const std::vector<Step>& there() {
  static const std::vector<Step> steps{
      {"nothing", [](auto&, const auto&) {}},
      {"write a", [](auto& world, const auto& token) { world.server().writeFile("/a", token); }},
      {"write b", [](auto& world, const auto& token) { world.server().writeFile("/b", token); }},
      {"write c", [](auto& world, const auto& token) { world.server().writeFile("/c", token); }},
      {"remove a", [](auto& world, const auto&) { world.server().remove("/a"); }},
      {"rename a c", [](auto& world, const auto&) { world.server().rename("/a", "/c"); }},
  };
  return steps;
}

using Steps = std::vector<std::size_t>;
using Tree = std::map<std::string, std::optional<std::string>>;

bool has(const Tree& tree, const std::string& contents) {
  for (const auto& [path, bytes] : tree) {
    if (bytes == contents) return true;
  }
  return false;
}

/// What is wrong in the end; empty when nothing is.
std::string outcome(const Steps& steps, const Step& other, bool restarts) {
  ReplicaWorld world;
  world.server().writeFile("/a", "old a");
  world.server().writeFile("/b", "old b, longer");
  world.read("/a");
  world.read("/b");
  world.advance(seconds(3));
  world.extension().setDown(true);
  for (int failed = 0; failed < 3; ++failed) {
    world.call(world.replica().askForRoot());
    world.advance(seconds(1));
  }
  int number = 0;
  for (const std::size_t step : steps) {
    try {
      here()[step].take(world, "here " + std::to_string(++number));
    } catch (const NSError&) {
      return {};
    }
  }
  other.take(world, "there, and long");
  const Tree seen = world.tree();
  if (restarts) {
    world.crashUnconnected();
    world.connect();
  }
  world.extension().setDown(false);
  // Some things need a second look.
  for (int look = 0; look < 3; ++look) {
    if (!world.settle()) return "is never settled";
    world.advance(seconds(31));
    world.tree();
  }
  if (!world.settle()) return "is never settled";
  const Tree found = world.server().tree();
  std::string wrong;
  if (other.name.starts_with("write") && !has(found, "there, and long"))
    wrong += "theirs is lost; ";
  for (const auto& [path, bytes] : seen) {
    // What is old may have been replaced or removed there.
    if (bytes && bytes->starts_with("here") && !has(found, *bytes)) wrong += *bytes + " is lost; ";
  }
  if (world.tree() != found) wrong += "the two sides differ; ";
  if (other.name == "nothing" && found != seen) wrong += "is not what was made here; ";
  return wrong;
}

std::string text(const Steps& steps, const Step& other, bool restarts) {
  std::string all;
  for (const std::size_t step : steps) all += here()[step].name + "; ";
  return all + "there " + other.name + (restarts ? "; a restart" : "");
}

constexpr std::size_t kSteps = 2;

/// Every history of some steps here and one there, by its first step here.
class OfflineTest : public testing::TestWithParam<std::size_t> {
 protected:
  OfflineTest() {
    if (const char* wanted = std::getenv("KFP_OFFLINE_STEPS")) {
      length_ = std::max(std::size_t{1}, static_cast<std::size_t>(std::atoi(wanted)));
    }
  }

  void tryAll(Steps steps) {
    if (steps.size() == length_) {
      for (const Step& other : there()) {
        check(steps, other, false);
        check(steps, other, true);
      }
      return;
    }
    for (std::size_t step = 0; step < here().size(); ++step) {
      Steps more = steps;
      more.push_back(step);
      tryAll(std::move(more));
    }
  }

 private:
  void check(const Steps& steps, const Step& other, bool restarts) const {
    EXPECT_EQ(outcome(steps, other, restarts), "") << text(steps, other, restarts);
  }

  std::size_t length_ = kSteps;
};

TEST_P(OfflineTest, LosesNothingAndComesToAnEnd) {
  tryAll({GetParam()});
}

INSTANTIATE_TEST_SUITE_P(ByTheFirstStep, OfflineTest, testing::Range(std::size_t{0}, here().size()),
                         [](const auto& chosen) {
                           std::string name = here()[chosen.param].name;
                           std::replace(name.begin(), name.end(), ' ', '_');
                           return name;
                         });

}  // namespace
}  // namespace kestrowan::test
