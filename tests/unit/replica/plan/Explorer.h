#pragma once

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "unit/replica/plan/PlannerWorld.h"

namespace kestrowan::test {

/// How much may happen in one history.
struct Bounds {
  unsigned here = 0;
  unsigned there = 0;
  /// Answers that are lost or late, and steps that are held.
  unsigned faults = 0;
  /// Requests and looks that other steps overlap.
  unsigned slow = 0;
  /// The engine may work between any two changes; else it begins after the last one. Changes there
  /// come last then, since the two sides do not meet before; but for the bytes of a file here,
  /// which may be put there before that file is changed again.
  bool isInterleaved = false;
  /// Which of the steps that may be done the engine takes: the last instead of the first.
  bool isReversed = false;
  std::vector<std::string> names;
  /// If the engine begins after the last change: from one in so many of the states that the changes
  /// lead to, it does.
  unsigned share = 1;
};

/// A history that broke a rule.
struct Failure {
  std::string rule;
  /// As it is printed, one step a line.
  std::string text;
  std::size_t length = 0;
};

/// Runs histories through the planner. A state that was reached before, from any tree and by any of
/// the names, is not entered again, unless more may happen now than then.
class Explorer {
 public:
  explicit Explorer(Bounds bounds) : bounds_(std::move(bounds)) {}

  /// Every history from this tree. Ends at the first failure that it finds.
  void exploreAll(const PlannerWorld& start);
  /// One history at random.
  void sample(const PlannerWorld& start, std::mt19937_64& random);

  /// States of the world that were entered, and those of them in which nothing was left to be done.
  std::uint64_t cases() const { return cases_; }
  std::uint64_t ends() const { return ends_; }
  /// The shortest that was found.
  const std::optional<Failure>& failure() const { return failure_; }

 private:
  /// How a state was reached from another one.
  struct Deed {
    enum class Kind : std::uint8_t { start, here, there, look, ask, write, answer, step };

    Kind kind = Kind::start;
    std::uint8_t fate = 0;
    /// Done in the world that the deed before it left, not in one that was read from a text.
    bool goesOn = false;
    std::uint16_t index = 0;
    std::uint32_t from = 0;
  };
  struct Node {
    std::string text;
    std::uint8_t here = 0;
    std::uint8_t there = 0;
    std::uint8_t faults = 0;
    std::uint8_t slow = 0;
    /// It has begun to work.
    bool isEnginesTurn = false;
    std::uint32_t trace = 0;

    unsigned left() const { return 0U + here + there + faults + slow; }
  };
  /// Hashes of states; the size is a power of two.
  class HashSet {
   public:
    bool contains(std::uint64_t hash) const;
    bool insert(std::uint64_t hash);

   private:
    void grow();

    std::vector<std::uint64_t> slots_ = std::vector<std::uint64_t>(1024);
    std::size_t count_ = 0;
  };

  void begin(const PlannerWorld& start);
  void runAll();
  void runToTheEnd(Node node);
  void putAside(Node node);
  bool isCovered(const Node& node) const;
  bool isLeftOut(const Node& node) const;
  std::string encoded(const PlannerWorld& world) const { return world.encoded(bounds_.names); }
  bool enter(const Node& node, std::vector<std::uint64_t>& chain);
  void branch(const Node& node, const PlannerWorld& world);
  void branchStep(const Node& node, const Move& move);
  Move moveOf(const PlannerWorld& world, const Deed& deed) const;
  std::optional<Node> engineStep(const Node& node, PlannerWorld& world, bool goesOn);
  template <class Do>
  std::optional<Node> done(const Node& node, Deed deed, PlannerWorld& world, const Do& doIt);
  template <class Do>
  void consider(const Node& node, Deed deed, const Do& doIt);
  std::optional<Node> changeAtRandom(const Node& node, std::mt19937_64& random);
  std::optional<Node> workAtRandom(const Node& node, std::mt19937_64& random);
  Deed deedAtRandom(const Node& node, const PlannerWorld& world, std::mt19937_64& random);
  void repeat(PlannerWorld& world, const Deed& deed) const;
  std::string toldAgain(const std::vector<Deed>& way) const;
  std::string describeDeed(const PlannerWorld& world, const Deed& deed) const;
  void fail(const std::string& rule, const Node& node, Deed deed);

  Bounds bounds_;
  HashSet seen_;
  /// By how much may still happen.
  std::vector<std::vector<Node>> todo_;
  std::size_t todoCount_ = 0;
  std::vector<Deed> deeds_;
  std::string start_;
  std::uint64_t cases_ = 0;
  std::uint64_t ends_ = 0;
  std::optional<Failure> failure_;
};

/// All trees in step of up to `items` items in two levels, one of those that differ in names only;
/// once downloaded and once not.
std::vector<std::string> startingTrees(unsigned items, const std::vector<std::string>& names);

}  // namespace kestrowan::test
