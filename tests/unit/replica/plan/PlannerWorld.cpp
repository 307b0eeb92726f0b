#include "unit/replica/plan/PlannerWorld.h"

#include <algorithm>
#include <set>
#include <sstream>
#include <utility>

#include "replica/plan/Landing.h"
#include "replica/plan/Plan.h"
#include "replica/plan/Settling.h"
#include "unit/replica/plan/Relations.h"

namespace kestrowan::test {

using replica::plan::Doubts;
using replica::plan::Fetch;
using replica::plan::foldersOf;
using replica::plan::kLandingTime;
using replica::plan::kSuspicionTime;
using replica::plan::Look;
using replica::plan::Names;
using replica::plan::noteAnswer;
using replica::plan::noteFetched;
using replica::plan::noteLostAnswer;
using replica::plan::noteRefusal;
using replica::plan::noteSent;
using replica::plan::Nothing;
using replica::plan::observe;
using replica::plan::planForIntent;
using replica::plan::Push;
using replica::plan::Request;
using replica::plan::requestOf;
using replica::plan::Settle;
using replica::plan::settle;
using replica::plan::Shown;
using replica::plan::Step;
using replica::plan::Stuck;
using replica::plan::WaitFor;
using replica::plan::WaitForAnswer;
using replica::plan::WaitUntil;
using replica::plan::Written;

namespace {

/// The landing time is six of these.
constexpr std::chrono::seconds kStep{100};
static_assert(kStep * 6 == kLandingTime);

class ShortNames : public Names {
 public:
  bool staysHere(std::string_view) const override { return false; }
  std::string conflict(std::string_view name, unsigned number) const override {
    return std::string(name) + "!" + std::to_string(number);
  }
  std::string aside(std::string_view name, unsigned number) const override {
    return std::string(name) + "+" + std::to_string(number);
  }
  std::string third(std::string_view name, unsigned number) const override {
    return "~" + std::string(name) + std::to_string(number);
  }
};

const ShortNames kNames;

bool isIdle(const Step& step) {
  return std::holds_alternative<Nothing>(step) || std::holds_alternative<WaitFor>(step) ||
         std::holds_alternative<WaitForAnswer>(step) || std::holds_alternative<WaitUntil>(step);
}

}  // namespace

bool Move::mayBeHeld() const {
  return isSent() || std::holds_alternative<Look>(step) || std::holds_alternative<Fetch>(step);
}

std::vector<Event> PlannerWorld::eventsHere(const std::vector<std::string>& names) const {
  const View view(world_.tree);
  return WorldEvents(*view, world_.provider, names).here();
}

std::vector<Event> PlannerWorld::eventsThere(const std::vector<std::string>& names) const {
  const View view(world_.tree);
  return WorldEvents(*view, world_.provider, names).there();
}

void PlannerWorld::apply(const Event& event) {
  const ContentSet come = world_.apply(event);
  if (event.isHere()) return;
  for (Flight& flight : flights_) flight.newer |= come;
  for (Flight& flight : late_) flight.newer |= come;
  disturb();
}

void PlannerWorld::disturb() {
  for (Flight& flight : flights_) flight.isDisturbed = true;
}

std::string PlannerWorld::describe(const Move& move) const {
  switch (move.kind) {
    case Move::Kind::none:
      return "nothing";
    case Move::Kind::look:
      return "look at all";
    case Move::Kind::ask:
      return "ask for a look at all";
    case Move::Kind::write:
      return "write what the look showed";
    case Move::Kind::answer:
      return "the answer of intent " +
             std::to_string(static_cast<unsigned>(flights_.at(move.answered).intent));
    case Move::Kind::wait:
      return "wait";
    case Move::Kind::retry:
      return "try again what was held";
    case Move::Kind::step:
      break;
  }
  std::ostringstream out;
  if (const auto* push = std::get_if<Push>(&move.step)) {
    constexpr const char* kWords[] = {"create", "contents", "move", "remove"};
    out << "push " << kWords[static_cast<unsigned>(push->change)] << " "
        << static_cast<unsigned>(push->item) << " " << static_cast<unsigned>(push->place.folder)
        << "/\"" << push->place.name << "\" c" << static_cast<unsigned>(push->content);
  } else if (const auto* edit = std::get_if<Settle>(&move.step)) {
    constexpr const char* kWords[] = {"drop",   "own",   "back", "show",   "join", "aside", "anew",
                                      "forget", "agree", "pull", "beside", "part", "take",  "end"};
    out << "settle " << kWords[static_cast<unsigned>(edit->resolution)] << " "
        << static_cast<unsigned>(edit->item) << " " << static_cast<unsigned>(edit->other) << " \""
        << edit->place.name << "\"";
  } else if (const auto* file = std::get_if<Fetch>(&move.step)) {
    out << "fetch " << static_cast<unsigned>(file->item);
  } else if (const auto* folders = std::get_if<Look>(&move.step)) {
    out << "look at";
    for (const ItemNumber folder : folders->folders) out << " " << static_cast<unsigned>(folder);
  }
  return out.str();
}

bool PlannerWorld::isHeld(const Step& step) const {
  return std::find(held_.begin(), held_.end(), step) != held_.end();
}

/// `until`: the next time that something waits for.
void PlannerWorld::addSteps(std::vector<Move>& moves, std::optional<Time>& until) const {
  const View view(world_.tree);
  const auto add = [&](Move move) {
    if (const auto* time = std::get_if<WaitUntil>(&move.step)) {
      until = std::min(until.value_or(time->time), time->time);
    }
    if (!isIdle(move.step) && !isHeld(move.step)) moves.push_back(std::move(move));
  };
  for (const ItemNumber number : view->pending()) {
    Step step = plan(*view, number, now_, kNames);
    if (std::holds_alternative<Stuck>(step)) throw Broken("stuck");
    if (std::holds_alternative<Nothing>(step)) throw Broken("nothing is done for what is pending");
    if (const auto* other = std::get_if<WaitFor>(&step)) {
      const Step next = plan(*view, other->item, now_, kNames);
      const bool isInVain =
          std::holds_alternative<Nothing>(next) || std::holds_alternative<WaitFor>(next);
      if (isInVain) throw Broken("it waits for what cannot go");
    }
    add({Move::Kind::step, number, {}, std::move(step), 0});
  }
  for (const Intent& intent : view->intents().all()) {
    add({Move::Kind::step, {}, intent.number, planForIntent(*view, intent.number, now_), 0});
  }
}

std::vector<Move> PlannerWorld::steps() const {
  std::vector<Move> moves;
  std::optional<Time> until;
  addSteps(moves, until);
  return moves;
}

/// What waits has to do with what is under way or held.
void PlannerWorld::checkWaiting() const {
  const View view(world_.tree);
  Relations relations(*view);
  for (const Flight& flight : flights_) relations.addIntent(flight.intent);
  for (const ItemNumber number : view->pending()) {
    if (isHeld(plan(*view, number, now_, kNames))) relations.addItem(number);
  }
  for (const Intent& intent : view->intents().all()) {
    const Step step = planForIntent(*view, intent.number, now_);
    if (isHeld(step) || std::holds_alternative<WaitUntil>(step)) relations.addIntent(intent.number);
  }
  for (const ItemNumber number : view->pending()) {
    if (!relations.contains(number)) throw Broken("it waits for what is no matter to it");
  }
}

Move PlannerWorld::next(bool isReversed) const {
  std::vector<Move> moves;
  std::optional<Time> until;
  addSteps(moves, until);
  if (!moves.empty()) return isReversed ? moves.back() : moves.front();
  checkWaiting();
  if (asked_) return {Move::Kind::write, {}, {}, {}, 0};
  if (!flights_.empty()) return {Move::Kind::answer, {}, {}, {}, 0};
  // A folder is explained once, so the request for one may outlive its intent.
  if (until || !late_.empty()) {
    return {Move::Kind::wait, {}, {}, WaitUntil{until.value_or(now_)}, 0};
  }
  if (!held_.empty()) return {Move::Kind::retry, {}, {}, {}, 0};
  const View view(world_.tree);
  if (!view->pending().empty()) throw Broken("nothing that is pending can go");
  return {};
}

void PlannerWorld::carryOut(const Move& move, Fate fate) {
  const std::string before = world_.hasChangedThere ? std::string() : world_.shownTree();
  ContentSet there = world_.contentsThere() & ~world_.strays;
  switch (move.kind) {
    case Move::Kind::look:
      lookAtAll();
      break;
    case Move::Kind::ask:
      ask();
      break;
    case Move::Kind::write:
      writeAsked();
      break;
    case Move::Kind::answer:
      // What others put there after the request was sent could not be known.
      there &= ~flights_.at(move.answered).newer;
      answer(move.answered);
      break;
    case Move::Kind::step:
      take(move, fate);
      break;
    case Move::Kind::retry:
      held_.clear();
      break;
    case Move::Kind::wait:
      if (late_.empty()) now_ = std::max(now_, std::get<WaitUntil>(move.step).time);
      break;
    case Move::Kind::none:
      break;
  }
  if (there & world_.wanted & ~world_.contentsThere()) {
    throw Broken("the last copy there is destroyed");
  }
  pass();
  if (!world_.hasChangedThere && world_.shownTree() != before) {
    throw Broken("what programs see changes although nothing changed there");
  }
}

std::vector<ItemNumber> PlannerWorld::foldersBesides(const std::set<ItemNumber>& known) const {
  const View view(world_.tree);
  std::vector<ItemNumber> folders;
  std::vector<const Item*> todo{&view->root()};
  while (!todo.empty()) {
    const Item* item = todo.back();
    todo.pop_back();
    if (item->isFile()) continue;
    if (!known.contains(item->number())) folders.push_back(item->number());
    for (const Item* child : view->thereIn(item->number())) todo.push_back(child);
  }
  return folders;
}

void PlannerWorld::lookAtAll() {
  world_.isUnseen = !flights_.empty();
  std::set<ItemNumber> known;
  for (auto folders = foldersBesides(known); !folders.empty(); folders = foldersBesides(known)) {
    known.insert(folders.begin(), folders.end());
    look(folders);
  }
}

void PlannerWorld::ask() {
  asked_ = Asked{world_.provider.tree, now_, {}};
}

/// Newer looks have been written since, unless there was none.
void PlannerWorld::writeAsked() {
  const Asked asked = std::move(*asked_);
  asked_.reset();
  ModelProvider then;
  then.tree = asked.tree;
  std::set<ItemNumber> known;
  for (auto folders = foldersBesides(known); !folders.empty(); folders = foldersBesides(known)) {
    known.insert(folders.begin(), folders.end());
    write(folders, {{}, asked.began, asked.answered}, then);
  }
}

void PlannerWorld::look(const std::vector<ItemNumber>& folders) {
  asked_.reset();
  write(folders, {{}, now_, {}}, world_.provider);
}

/// Two looks that agree, if the first one left something in doubt.
void PlannerWorld::write(const std::vector<ItemNumber>& folders, Shown shown,
                         const ModelProvider& provider) {
  Doubts doubts;
  for (unsigned looks = 0; looks < 2;) {
    Edit edit(world_.tree);
    Written written = observe(edit, folders, shown, doubts);
    for (const Path& path : written.lacking) shown.listings[path] = provider.list(path);
    if (!written.lacking.empty()) continue;
    edit.commit();
    doubts = std::move(written.doubts);
    // A second one would write the same.
    if (!doubts.next()) return;
    shown.began += kSuspicionTime;
    ++looks;
  }
}

void PlannerWorld::take(const Move& move, Fate fate) {
  if (fate == Fate::held) return held_.push_back(move.step);
  if (const auto* folders = std::get_if<Look>(&move.step)) return look(folders->folders);
  if (const auto* file = std::get_if<Fetch>(&move.step)) return fetch(file->item);
  if (const auto* request = std::get_if<Push>(&move.step)) return push(*request, move, fate);
  Edit edit(world_.tree);
  settle(edit, std::get<Settle>(move.step));
  edit.commit();
}

void PlannerWorld::fetch(ItemNumber number) {
  ItemNumber folder = ItemNumber::none;
  {
    Edit edit(world_.tree);
    const Item& item = edit->item(number);
    const auto* entry = world_.provider.at(edit->therePath(item));
    if (entry && ModelProvider::versionOf(*entry) == item.there()->version) {
      noteFetched(edit, number, item.there()->version, entry->content);
      return edit.commit();
    }
    folder = item.there()->place.folder;
  }
  look({folder});
}

void PlannerWorld::push(const Push& push, const Move& move, Fate fate) {
  std::vector<ItemNumber> folders;
  {
    const View view(world_.tree);
    folders = foldersOf(*view, push);
  }
  look(folders);
  {
    const View view(world_.tree);
    if (plan(*view, move.item, now_, kNames) != Step(push)) return;
  }
  send(push, fate);
}

void PlannerWorld::send(const Push& push, Fate fate) {
  Flight flight;
  {
    Edit edit(world_.tree);
    const Request request = requestOf(*edit, push);
    flight.intent = noteSent(edit, request, now_);
    edit.commit();
    flight.verb = request.verb;
    flight.source = request.source;
    flight.target = request.target;
    flight.content = request.content;
  }
  flight.fate = fate;
  const bool isDone =
      fate == Fate::ok || fate == Fate::lostAfter || fate == Fate::slow || fate == Fate::slowLost;
  if (isDone && !doThere(flight)) throw Broken("the provider refuses a request after a look");
  if (isDone && flight.verb == Verb::put) {
    flight.version = ModelProvider::versionOf(*world_.provider.at(*flight.target));
  }
  flights_.push_back(std::move(flight));
  if (!isSlow(fate)) answer(flights_.size() - 1);
}

bool PlannerWorld::doThere(const Flight& flight) {
  return world_.request(flight.verb, flight.source, flight.target, flight.content);
}

void PlannerWorld::answer(std::size_t index) {
  Flight flight = std::move(flights_.at(index));
  flights_.erase(flights_.begin() + static_cast<std::ptrdiff_t>(index));
  if (asked_) {
    for (const auto& path : {flight.source, flight.target}) {
      if (path) asked_->answered.push_back(*path);
    }
  }
  bool isRefused = false;
  if (flight.fate == Fate::slowDone) {
    land(flight);
    isRefused = !doThere(flight);
    if (isRefused && !flight.isDisturbed) throw Broken("the provider refuses a request");
    if (!isRefused && flight.verb == Verb::put) {
      flight.version = ModelProvider::versionOf(*world_.provider.at(*flight.target));
    }
  }
  Edit edit(world_.tree);
  if (isRefused) {
    noteRefusal(edit, flight.intent);
  } else if (isFault(flight.fate)) {
    noteLostAnswer(edit, flight.intent, now_);
  } else {
    noteAnswer(edit, flight.intent, flight.version, now_);
  }
  edit.commit();
  if (flight.fate < Fate::lateByOne || !isFault(flight.fate)) return;
  if (flight.fate == Fate::slowLost) return;
  flight.intent = IntentNumber::none;
  flight.due = flight.fate == Fate::lateByTwo ? 3 : 2;
  late_.push_back(std::move(flight));
}

/// Time passes; what is due is done there.
void PlannerWorld::pass() {
  now_ += kStep;
  for (Flight& late : late_) --late.due;
  const auto all = std::exchange(late_, {});
  for (const Flight& late : all) {
    if (late.due > 0) late_.push_back(late);
  }
  for (const Flight& late : all) {
    if (late.due > 0) continue;
    land(late);
    disturb();
    world_.isUnseen = true;
    world_.strays |= bit(late.content);
    doThere(late);
  }
}

/// What came between the look before the request and its effect cannot be known, unless it is shown
/// here.
void PlannerWorld::land(const Flight& flight) {
  std::vector<Path> gone;
  if (flight.verb == Verb::remove) gone = world_.provider.inside(*flight.source);
  if (flight.verb == Verb::put) gone = {*flight.target};
  const View view(world_.tree);
  for (const Path& path : gone) {
    const auto* entry = world_.provider.at(path);
    if (!entry || !(flight.newer & bit(entry->content))) continue;
    const Item* item = view->atPath(path);
    if (!item || !item->here() || world_.shown(*item) != entry->content) {
      world_.forget(entry->content);
    }
  }
}

}  // namespace kestrowan::test
