#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "replica/plan/Names.h"
#include "replica/plan/Requests.h"
#include "replica/plan/Step.h"
#include "unit/replica/plan/ModelWorld.h"

namespace kestrowan::test {

/// What becomes of a request.
enum class Fate : std::uint8_t {
  ok,         // done and answered at once
  lost,       // never done; the answer counts as lost at once
  lostAfter,  // done; the answer counts as lost at once
  lateByOne,  // the answer counts as lost at once; done a step later
  lateByTwo,
  slow,      // done at once, answered some steps later
  slowDone,  // done and answered some steps later
  slowLost,  // done at once; the answer counts as lost some steps later
  slowLate,  // the answer counts as lost some steps later; done a step after that
  held,      // not done, and not to be done until everything else has come to its end
};

/// What it costs of the bounds of a history.
constexpr bool isFault(Fate fate) {
  return fate != Fate::ok && fate != Fate::slow && fate != Fate::slowDone;
}
constexpr bool isSlow(Fate fate) {
  return fate >= Fate::slow && fate <= Fate::slowLate;
}

/// What the engine does next: a step of the planner; a look at all folders, at once, or asked for
/// now and written later; an answer is written; time passes; or what was held is tried again.
struct Move {
  enum class Kind : std::uint8_t { none, step, look, ask, write, answer, wait, retry };

  Kind kind = Kind::none;
  /// The item or the intent that was asked about.
  ItemNumber item = ItemNumber::none;
  IntentNumber intent = IntentNumber::none;
  replica::plan::Step step;
  /// Which of the requests that are under way is answered.
  std::size_t answered = 0;

  bool isSent() const { return std::holds_alternative<replica::plan::Push>(step); }
  bool mayBeHeld() const;
};

/// An engine that is driven by the planner, in a world. Requests may be under way at the same time.
class PlannerWorld {
 public:
  /// An empty folder on both sides.
  PlannerWorld() = default;
  /// The world that `encoded` gave this text of.
  explicit PlannerWorld(const std::string& text);
  PlannerWorld(const PlannerWorld&) = delete;
  PlannerWorld& operator=(const PlannerWorld&) = delete;

  /// The same text for worlds that differ only in numbers, or in that names of `alike` have changed
  /// places. `used` becomes the renaming after which the text was made, if it is not null.
  std::string encoded(const std::vector<std::string>& alike = {}, Renaming* used = nullptr) const;

  ItemNumber add(Kind kind, ItemNumber folder, const std::string& name, bool isDownloaded) {
    return world_.add(kind, folder, name, isDownloaded);
  }
  std::vector<Event> eventsHere(const std::vector<std::string>& names) const;
  std::vector<Event> eventsThere(const std::vector<std::string>& names) const;
  void apply(const Event& event);

  /// All steps of the planner that may be done now; those that are held are not among them.
  std::vector<Move> steps() const;
  /// What is done next if nothing else is chosen. `isReversed`: of the steps that may be done, the
  /// last instead of the first. Throws `Broken` when something waits that need not.
  Move next(bool isReversed) const;
  std::size_t underWay() const { return flights_.size(); }
  bool isAsked() const { return asked_.has_value(); }
  /// Whether another client changed something that no whole look has shown yet.
  bool isUnseen() const { return world_.isUnseen; }
  /// Throws `Broken`.
  void carryOut(const Move& move, Fate fate);
  /// For a world in which nothing is to be done any more. Throws `Broken`.
  void judge() const { world_.judge(); }

  std::string describe(const Move& move) const;
  std::string describe() const { return world_.describe(); }

 private:
  /// A request that the provider has not done yet, or that has no answer yet.
  struct Flight {
    /// `none` when the answer is no longer waited for.
    IntentNumber intent = IntentNumber::none;
    Fate fate = Fate::ok;
    /// In steps from now; of those without an answer.
    unsigned due = 0;
    Verb verb = Verb::put;
    std::optional<Path> source;
    std::optional<Path> target;
    Content content = Content::none;
    Version version;
    /// Written there by others after it was sent.
    ContentSet newer = 0;
    /// Something else has changed there since.
    bool isDisturbed = false;
  };
  /// A look at all folders that was asked for and is not written yet.
  struct Asked {
    std::map<Path, ModelProvider::Entry> tree;
    Time began;
    std::vector<Path> answered;
  };

  friend class WorldNames;
  friend class WorldWriter;
  friend class WorldReader;

  bool isHeld(const replica::plan::Step& step) const;
  void addSteps(std::vector<Move>& moves, std::optional<Time>& until) const;
  void checkWaiting() const;
  void lookAtAll();
  void ask();
  void writeAsked();
  std::vector<ItemNumber> foldersBesides(const std::set<ItemNumber>& known) const;
  void look(const std::vector<ItemNumber>& folders);
  void write(const std::vector<ItemNumber>& folders, replica::plan::Shown shown,
             const ModelProvider& provider);
  void take(const Move& move, Fate fate);
  void fetch(ItemNumber number);
  void push(const replica::plan::Push& push, const Move& move, Fate fate);
  void send(const replica::plan::Push& push, Fate fate);
  void answer(std::size_t index);
  void pass();
  void land(const Flight& flight);
  bool doThere(const Flight& flight);
  void disturb();

  ModelWorld world_;
  /// In the order in which they were sent.
  std::vector<Flight> flights_;
  std::vector<Flight> late_;
  std::optional<Asked> asked_;
  std::vector<replica::plan::Step> held_;
  Time now_;
};

}  // namespace kestrowan::test
