#include "unit/replica/plan/Explorer.h"

#include <algorithm>
#include <functional>
#include <set>
#include <sstream>
#include <utility>

namespace kestrowan::test {

namespace {

/// Steps in which everything must have come to its end.
constexpr std::size_t kLimit = 250;
/// Of a deed: the engine's own choice.
constexpr std::uint16_t kNext = 0xFFFF;
/// How many states may wait to be entered before those come first that soon come to their end.
constexpr std::size_t kManyAside = 500'000;

std::uint64_t hashOf(std::uint64_t text, unsigned here, unsigned there, unsigned faults,
                     unsigned slow) {
  const std::uint64_t left = (here << 6) + (there << 4) + (faults << 2) + slow + 1;
  std::uint64_t value = text ^ (left * 0x9E3779B97F4A7C15);
  value ^= value >> 32;
  value *= 0xBF58476D1CE4E5B9;
  value ^= value >> 29;
  return value | 1;
}

std::uint64_t hashOf(const std::string& text) {
  return std::hash<std::string>{}(text);
}

}  // namespace

bool Explorer::HashSet::contains(std::uint64_t hash) const {
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t i = hash & mask; slots_[i] != 0; i = (i + 1) & mask) {
    if (slots_[i] == hash) return true;
  }
  return false;
}

bool Explorer::HashSet::insert(std::uint64_t hash) {
  if (count_ * 4 >= slots_.size() * 3) grow();
  const std::size_t mask = slots_.size() - 1;
  std::size_t i = hash & mask;
  for (; slots_[i] != 0; i = (i + 1) & mask) {
    if (slots_[i] == hash) return false;
  }
  slots_[i] = hash;
  ++count_;
  return true;
}

void Explorer::HashSet::grow() {
  const auto old = std::exchange(slots_, std::vector<std::uint64_t>(slots_.size() * 2));
  count_ = 0;
  for (const std::uint64_t hash : old) {
    if (hash != 0) insert(hash);
  }
}

/// It was entered before, or the same state was from which at least as much could happen.
bool Explorer::isCovered(const Node& node) const {
  const std::uint64_t text = hashOf(node.text);
  for (unsigned here = node.here; here <= bounds_.here; ++here) {
    for (unsigned there = node.there; there <= bounds_.there; ++there) {
      for (unsigned faults = node.faults; faults <= bounds_.faults; ++faults) {
        for (unsigned slow = node.slow; slow <= bounds_.slow; ++slow) {
          if (seen_.contains(hashOf(text, here, there, faults, slow))) return true;
        }
      }
    }
  }
  return false;
}

void Explorer::begin(const PlannerWorld& start) {
  deeds_.assign(1, {});
  start_ = encoded(start);
  todo_.assign(bounds_.here + bounds_.there + bounds_.faults + bounds_.slow + 1, {});
  todoCount_ = 0;
}

void Explorer::putAside(Node node) {
  ++todoCount_;
  todo_.at(node.left()).push_back(std::move(node));
}

/// What is covered by other states comes after them, as far as there is room for it.
void Explorer::runAll() {
  while (todoCount_ > 0 && !failure_) {
    const auto isFilled = [](const auto& nodes) { return !nodes.empty(); };
    auto& nodes = todoCount_ > kManyAside ? *std::find_if(todo_.begin(), todo_.end(), isFilled)
                                          : *std::find_if(todo_.rbegin(), todo_.rend(), isFilled);
    Node node = std::move(nodes.back());
    nodes.pop_back();
    --todoCount_;
    if (!isCovered(node)) runToTheEnd(std::move(node));
  }
}

void Explorer::exploreAll(const PlannerWorld& start) {
  begin(start);
  putAside({start_, static_cast<std::uint8_t>(bounds_.here),
            static_cast<std::uint8_t>(bounds_.there), static_cast<std::uint8_t>(bounds_.faults),
            static_cast<std::uint8_t>(bounds_.slow), false, 0});
  runAll();
}

/// Follows what the engine does when every answer comes; what else may happen is put aside. A state
/// that was entered before has been followed to its end, unless it is one of this way. Where no
/// change or fault is left, the engine goes on in the same world, by the numbers and names of that.
void Explorer::runToTheEnd(Node node) {
  std::vector<std::uint64_t> chain;
  std::optional<PlannerWorld> world;
  while (enter(node, chain)) {
    try {
      const bool goesOn = world && node.left() == 0;
      if (!goesOn) world.emplace(node.text);
      branch(node, *world);
      if (isLeftOut(node)) return;
      auto next = engineStep(node, *world, goesOn);
      if (!next) return;
      node = std::move(*next);
    } catch (const Broken& broken) {
      return fail(broken.what(), node, {});
    }
  }
}

/// What the engine would do from here belongs to another share.
bool Explorer::isLeftOut(const Node& node) const {
  if (bounds_.share == 1 || node.isEnginesTurn) return false;
  return hashOf(node.text) / 2 % bounds_.share != 0;
}

bool Explorer::enter(const Node& node, std::vector<std::uint64_t>& chain) {
  const std::uint64_t text = hashOf(node.text);
  const bool isLoop = std::find(chain.begin(), chain.end(), text) != chain.end();
  if (isLoop || chain.size() > kLimit) {
    fail("it does not end", node, {});
    return false;
  }
  chain.push_back(text);
  if (isCovered(node)) return false;
  seen_.insert(hashOf(text, node.here, node.there, node.faults, node.slow));
  ++cases_;
  return true;
}

/// Everything that may happen now besides the engine's own next step.
void Explorer::branch(const Node& node, const PlannerWorld& world) {
  const auto considerAll = [&](Deed::Kind kind, const std::vector<Event>& events) {
    Node before = node;
    for (std::size_t i = 0; i < events.size(); ++i) {
      const bool isLater = events[i].isHere() || events[i].kind == Event::Kind::putSameThere;
      before.here = bounds_.isInterleaved || isLater ? node.here : 0;
      consider(before, {kind, 0, false, static_cast<std::uint16_t>(i), node.trace},
               [&](PlannerWorld& other) { other.apply(events[i]); });
    }
  };
  if (node.here > 0) considerAll(Deed::Kind::here, world.eventsHere(bounds_.names));
  if (node.there > 0) considerAll(Deed::Kind::there, world.eventsThere(bounds_.names));
  if (isLeftOut(node)) return;
  const auto considerMove = [&](Deed::Kind kind, std::size_t index) {
    const Deed deed{kind, 0, false, static_cast<std::uint16_t>(index), node.trace};
    consider(node, deed,
             [&](PlannerWorld& other) { other.carryOut(moveOf(other, deed), Fate::ok); });
  };
  for (std::size_t i = 0; i < world.underWay(); ++i) considerMove(Deed::Kind::answer, i);
  if (world.isAsked()) considerMove(Deed::Kind::write, 0);
  if (world.isUnseen()) considerMove(Deed::Kind::look, 0);
  if (node.slow > 0 && !world.isAsked()) considerMove(Deed::Kind::ask, 0);
}

/// What else may become of the engine's own next step.
void Explorer::branchStep(const Node& node, const Move& move) {
  for (unsigned i = 1; i <= static_cast<unsigned>(Fate::held); ++i) {
    const auto fate = static_cast<Fate>(i);
    const bool isPossible = fate == Fate::held ? move.mayBeHeld() : move.isSent();
    if (!isPossible || (isFault(fate) && node.faults == 0) || (isSlow(fate) && node.slow == 0)) {
      continue;
    }
    consider(node, {Deed::Kind::step, static_cast<std::uint8_t>(i), false, kNext, node.trace},
             [&](PlannerWorld& other) { other.carryOut(move, fate); });
  }
}

Move Explorer::moveOf(const PlannerWorld& world, const Deed& deed) const {
  switch (deed.kind) {
    case Deed::Kind::look:
      return {Move::Kind::look, {}, {}, {}, 0};
    case Deed::Kind::ask:
      return {Move::Kind::ask, {}, {}, {}, 0};
    case Deed::Kind::write:
      return {Move::Kind::write, {}, {}, {}, 0};
    case Deed::Kind::answer:
      return {Move::Kind::answer, {}, {}, {}, deed.index};
    default:
      return deed.index == kNext ? world.next(bounds_.isReversed) : world.steps().at(deed.index);
  }
}

/// The state after the engine's next step, which is done in `world`.
std::optional<Explorer::Node> Explorer::engineStep(const Node& node, PlannerWorld& world,
                                                   bool goesOn) {
  Move move = world.next(bounds_.isReversed);
  const bool isAtRest = move.kind == Move::Kind::none || move.kind == Move::Kind::wait;
  if (move.kind == Move::Kind::none && !world.isUnseen()) {
    world.judge();
    ++ends_;
    return std::nullopt;
  }
  Deed deed{Deed::Kind::step, 0, goesOn, kNext, node.trace};
  if (world.isUnseen() && isAtRest) {
    deed.kind = Deed::Kind::look;
    move = moveOf(world, deed);
  }
  branchStep(node, move);
  return done(node, deed, world, [&](PlannerWorld& other) { other.carryOut(move, Fate::ok); });
}

/// The state after a deed, which is done in `world`; absent when it broke a rule.
template <class Do>
std::optional<Explorer::Node> Explorer::done(const Node& node, Deed deed, PlannerWorld& world,
                                             const Do& doIt) {
  Node next{{}, node.here, node.there, node.faults, node.slow, node.isEnginesTurn, 0};
  try {
    doIt(world);
    next.text = encoded(world);
  } catch (const Broken& broken) {
    fail(broken.what(), node, deed);
    return std::nullopt;
  }
  if (deed.kind == Deed::Kind::here) --next.here;
  if (deed.kind == Deed::Kind::there) --next.there;
  const bool isEngine = deed.kind != Deed::Kind::here && deed.kind != Deed::Kind::there;
  if (isEngine) next.isEnginesTurn = true;
  if (isEngine && !bounds_.isInterleaved) next.here = next.there = 0;
  const auto fate = static_cast<Fate>(deed.fate);
  if (isFault(fate)) --next.faults;
  if (isSlow(fate) || deed.kind == Deed::Kind::ask) --next.slow;
  next.trace = static_cast<std::uint32_t>(deeds_.size());
  deeds_.push_back(deed);
  return next;
}

template <class Do>
void Explorer::consider(const Node& node, Deed deed, const Do& doIt) {
  PlannerWorld world(node.text);
  auto next = done(node, deed, world, doIt);
  if (!next) return;
  if (isCovered(*next)) {
    deeds_.pop_back();
    return;
  }
  putAside(std::move(*next));
}

void Explorer::repeat(PlannerWorld& world, const Deed& deed) const {
  switch (deed.kind) {
    case Deed::Kind::start:
      return;
    case Deed::Kind::here:
      return world.apply(world.eventsHere(bounds_.names).at(deed.index));
    case Deed::Kind::there:
      return world.apply(world.eventsThere(bounds_.names).at(deed.index));
    default:
      return world.carryOut(moveOf(world, deed), static_cast<Fate>(deed.fate));
  }
}

std::string Explorer::describeDeed(const PlannerWorld& world, const Deed& deed) const {
  constexpr const char* kFates[] = {"",
                                    "  (never done, answer lost)",
                                    "  (done, answer lost)",
                                    "  (answer lost, done one step late)",
                                    "  (answer lost, done two steps late)",
                                    "  (done, answered later)",
                                    "  (done and answered later)",
                                    "  (done, answer lost later)",
                                    "  (answer lost later, then done)",
                                    "  (held)"};
  switch (deed.kind) {
    case Deed::Kind::start:
      return "start";
    case Deed::Kind::here:
      return world.eventsHere(bounds_.names).at(deed.index).text();
    case Deed::Kind::there:
      return world.eventsThere(bounds_.names).at(deed.index).text();
    default:
      return world.describe(moveOf(world, deed)) + kFates[deed.fate];
  }
}

void Explorer::fail(const std::string& rule, const Node& node, Deed deed) {
  std::vector<Deed> way;
  if (deed.kind != Deed::Kind::start) way.push_back(deed);
  for (std::uint32_t at = node.trace; at != 0; at = deeds_[at].from) way.push_back(deeds_[at]);
  std::reverse(way.begin(), way.end());
  if (failure_ && failure_->length <= way.size()) return;
  failure_ = Failure{rule, rule + "\n" + toldAgain(way), way.size()};
}

std::string Explorer::toldAgain(const std::vector<Deed>& way) const {
  std::ostringstream out;
  std::optional<PlannerWorld> world;
  world.emplace(start_);
  // From the names of this world to those at the start.
  Renaming original;
  out << world->describe();
  for (const Deed& one : way) {
    if (!one.goesOn) {
      Renaming used;
      const std::string text = world->encoded(bounds_.names, &used);
      original = used.inverse().then(original);
      world.emplace(text);
    }
    try {
      out << original.inQuotes(describeDeed(*world, one)) << "\n";
      repeat(*world, one);
    } catch (const Broken& broken) {
      out << "  " << broken.what() << "\n";
    }
    out << original.inQuotes(world->describe());
  }
  return out.str();
}

void Explorer::sample(const PlannerWorld& start, std::mt19937_64& random) {
  begin(start);
  Node node{start_,
            static_cast<std::uint8_t>(random() % (bounds_.here + 1)),
            static_cast<std::uint8_t>(random() % (bounds_.there + 1)),
            static_cast<std::uint8_t>(bounds_.faults),
            static_cast<std::uint8_t>(bounds_.slow),
            false,
            0};
  while (node.here + node.there > 0) {
    std::optional<Node> next = changeAtRandom(node, random);
    const std::uint64_t steps = bounds_.isInterleaved ? random() % 4 : 0;
    for (std::uint64_t i = 0; next && i < steps; ++i) next = workAtRandom(*next, random);
    if (!next) return;
    node = std::move(*next);
  }
  // Then every fate of one thing that is still to be sent.
  const bool isSlowOne = random() % 2 == 0;
  node.slow = isSlowOne ? std::min<std::uint8_t>(node.slow, 1) : 0;
  node.faults = isSlowOne ? 0 : std::min<std::uint8_t>(node.faults, 1);
  putAside(std::move(node));
  runAll();
}

std::optional<Explorer::Node> Explorer::changeAtRandom(const Node& node, std::mt19937_64& random) {
  PlannerWorld world(node.text);
  const bool isHere = random() % (node.here + node.there) < node.here;
  const auto events = isHere ? world.eventsHere(bounds_.names) : world.eventsThere(bounds_.names);
  const auto index = static_cast<std::uint16_t>(random() % events.size());
  return done(node, {isHere ? Deed::Kind::here : Deed::Kind::there, 0, false, index, node.trace},
              world, [&](PlannerWorld& other) { other.apply(events[index]); });
}

/// What the engine does at random; a step of the planner may be any that may be done.
Explorer::Deed Explorer::deedAtRandom(const Node& node, const PlannerWorld& world,
                                      std::mt19937_64& random) {
  Deed deed{Deed::Kind::step, 0, false, kNext, node.trace};
  const std::size_t steps = world.steps().size();
  if (steps > 0) deed.index = static_cast<std::uint16_t>(random() % steps);
  if (world.isUnseen() && random() % 3 == 0) {
    deed.kind = Deed::Kind::look;
  } else if (world.underWay() > 0 && random() % 3 == 0) {
    deed.kind = Deed::Kind::answer;
    deed.index = static_cast<std::uint16_t>(random() % world.underWay());
  } else if (world.isAsked() && random() % 3 == 0) {
    deed.kind = Deed::Kind::write;
  } else if (node.slow > 1 && !world.isAsked() && random() % 8 == 0) {
    deed.kind = Deed::Kind::ask;
  }
  return deed;
}

/// A step of the engine, or the same state when there is none.
std::optional<Explorer::Node> Explorer::workAtRandom(const Node& node, std::mt19937_64& random) {
  PlannerWorld world(node.text);
  Deed deed;
  Move move;
  try {
    deed = deedAtRandom(node, world, random);
    move = moveOf(world, deed);
  } catch (const Broken& broken) {
    fail(broken.what(), node, {});
    return std::nullopt;
  }
  if (move.kind == Move::Kind::none) return node;
  // The last fault and the last slow request are for the end.
  const auto fate = static_cast<Fate>(random() % (static_cast<unsigned>(Fate::held) + 1));
  const bool isPossible = fate == Fate::held ? move.mayBeHeld() : move.isSent();
  const bool isLeft = (!isFault(fate) || node.faults > 1) && (!isSlow(fate) || node.slow > 1);
  if (isPossible && isLeft) deed.fate = static_cast<std::uint8_t>(fate);
  return done(node, deed, world,
              [&](PlannerWorld& other) { other.carryOut(move, static_cast<Fate>(deed.fate)); });
}

namespace {

using Shape = std::set<std::pair<std::vector<std::size_t>, Kind>>;

bool hasItsFolders(const Shape& shape) {
  return std::all_of(shape.begin(), shape.end(), [&](const auto& one) {
    return one.first.size() == 1 || shape.contains({{one.first[0]}, Kind::folder});
  });
}

Shape smallestAlike(const Shape& shape, std::size_t names) {
  std::vector<std::size_t> order(names);
  for (std::size_t i = 0; i < names; ++i) order[i] = i;
  Shape smallest = shape;
  do {
    Shape other;
    for (const auto& [path, kind] : shape) {
      std::vector<std::size_t> renamed;
      for (const std::size_t name : path) renamed.push_back(order[name]);
      other.insert({renamed, kind});
    }
    smallest = std::min(smallest, other);
  } while (std::next_permutation(order.begin(), order.end()));
  return smallest;
}

std::string textOf(const Shape& shape, const std::vector<std::string>& names, bool isDownloaded) {
  PlannerWorld world;
  std::map<std::size_t, ItemNumber> folders;
  for (const bool isTop : {true, false}) {
    for (const auto& [path, kind] : shape) {
      if ((path.size() == 1) != isTop) continue;
      const ItemNumber folder = isTop ? ItemNumber::root : folders.at(path[0]);
      const ItemNumber made = world.add(kind, folder, names[path.back()], isDownloaded);
      if (isTop) folders[path[0]] = made;
    }
  }
  return world.encoded();
}

}  // namespace

std::vector<std::string> startingTrees(unsigned items, const std::vector<std::string>& names) {
  std::vector<std::vector<std::size_t>> paths;
  for (std::size_t a = 0; a < names.size(); ++a) {
    paths.push_back({a});
    for (std::size_t b = 0; b < names.size(); ++b) paths.push_back({a, b});
  }
  std::set<Shape> shapes;
  const std::function<void(Shape, std::size_t)> add = [&](Shape shape, std::size_t from) {
    if (hasItsFolders(shape)) shapes.insert(smallestAlike(shape, names.size()));
    if (shape.size() == items) return;
    for (std::size_t i = from; i < paths.size(); ++i) {
      for (const Kind kind : {Kind::file, Kind::folder}) {
        Shape more = shape;
        more.insert({paths[i], kind});
        add(std::move(more), i + 1);
      }
    }
  };
  add({}, 0);
  std::vector<Shape> sorted(shapes.begin(), shapes.end());
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const Shape& a, const Shape& b) { return a.size() < b.size(); });
  std::vector<std::string> result;
  for (const Shape& shape : sorted) {
    result.push_back(textOf(shape, names, true));
    const bool hasFiles = std::any_of(shape.begin(), shape.end(),
                                      [](const auto& one) { return one.second == Kind::file; });
    if (hasFiles) result.push_back(textOf(shape, names, false));
  }
  return result;
}

}  // namespace kestrowan::test
