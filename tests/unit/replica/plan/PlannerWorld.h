#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "replica/model/Edit.h"
#include "replica/model/View.h"
#include "replica/plan/Names.h"
#include "replica/plan/Step.h"
#include "unit/replica/plan/ModelProvider.h"

namespace kestrowan::test {

/// What became of a request: its answer came; it was lost before the effect or after it; or it was
/// lost and the effect comes one or two steps later.
enum class Fate : std::uint8_t { ok, lostBefore, lostAfter, lateByOne, lateByTwo };

/// Contents by numbers below 64.
using ContentSet = std::uint64_t;

/// A rule that was broken, in words.
class Broken : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

/// Something that a program does, or another client.
struct Event {
  enum class Kind : std::uint8_t {
    make,
    makeFolder,
    write,
    move,
    replace,
    swap,
    remove,  // here
    putThere,
    putSameThere,
    makeFolderThere,
    moveThere,
    removeThere,  // there
  };

  static Event here(Kind kind, Place place);
  static Event here(Kind kind, ItemNumber item, Place place);
  static Event here(Kind kind, ItemNumber item, ItemNumber other = ItemNumber::none);
  static Event there(Kind kind, Path source, Path target);
  static Event same(ItemNumber item, Path target);

  Kind kind = Kind::make;
  ItemNumber item = ItemNumber::none;
  ItemNumber other = ItemNumber::none;
  Place place;
  Path source;
  Path target;
};

/// What the engine does next: a step of the planner, a look at all folders, or to let time pass.
struct Move {
  enum class Kind : std::uint8_t { none, step, look, wait };

  Kind kind = Kind::none;
  ItemNumber asked = ItemNumber::none;
  replica::plan::Step step;
};

/// All items of a state, in an order that does not depend on their numbers unless they are nowhere.
std::vector<const Item*> allItems(const State& state);

/// A tree with its planner, a provider, and what must hold between them. Small worlds only: numbers
/// of items, contents, versions and names stay below 255.
class PlannerWorld {
 public:
  /// An empty folder on both sides.
  PlannerWorld();
  /// The world that `encoded` gave this text of.
  explicit PlannerWorld(const std::string& text);
  PlannerWorld(const PlannerWorld&) = delete;
  PlannerWorld& operator=(const PlannerWorld&) = delete;

  /// The same text for worlds that differ only in numbers.
  std::string encoded() const;

  /// An item in step on both sides; a file is downloaded or not.
  ItemNumber add(Kind kind, ItemNumber folder, const std::string& name, bool isDownloaded);

  /// All that programs may do by these names, and all that other clients may.
  std::vector<Event> eventsHere(const std::vector<std::string>& names) const;
  std::vector<Event> eventsThere(const std::vector<std::string>& names) const;
  void apply(const Event& event);

  /// `isReversed`: of the steps that may be done, the last instead of the first.
  Move next(bool isReversed) const;
  /// Whether another client changed something that no whole look has shown yet.
  bool isUnseen() const { return isUnseen_; }
  /// Throws `Broken`.
  void carryOut(const Move& move, Fate fate);
  void lookAtAll();
  /// For a world in which nothing is to be done any more. Throws `Broken`.
  void judge() const;

  std::string describe(const Event& event) const;
  std::string describe(const Move& move) const;
  std::string describe() const;

 private:
  struct Late {
    /// In steps from now.
    unsigned due = 0;
    Verb verb = Verb::put;
    std::optional<Path> source;
    std::optional<Path> target;
    Content content = Content::none;
    /// Written there by others after it was sent.
    ContentSet newer = 0;
  };

  class NoJournal : public Journal {
   public:
    void write(const Changes&) override {}
  };

  friend class WorldWriter;
  friend class WorldReader;

  void change(const Event& event, Content made);
  void changeThere(const Event& event, Content made);
  Content newContent();
  void forget(Content content);
  Content shown(const Item& item) const;
  ContentSet contentsThere() const;
  std::string shownTree() const;
  void look(const std::vector<ItemNumber>& folders);
  void take(const replica::plan::Step& step, ItemNumber asked, Fate fate);
  void fetch(ItemNumber number);
  void push(const replica::plan::Push& push, ItemNumber asked, Fate fate);
  void send(const replica::plan::Push& push, Fate fate);
  void land(unsigned steps);
  void landOne(const Late& late);
  std::string text(const Item& item) const;

  NoJournal journal_;
  Tree tree_{journal_};
  ModelProvider provider_;
  std::vector<Late> late_;
  Time now_;
  /// The bytes of each version there ever was.
  std::vector<Content> contentOf_{Content::none};
  unsigned lastContent_ = 0;
  /// Contents that nobody destroyed knowingly.
  ContentSet wanted_ = 0;
  /// Contents that landed late: nobody wants that copy.
  ContentSet strays_ = 0;
  bool hasChangedThere_ = false;
  bool isUnseen_ = false;
};

}  // namespace kestrowan::test
