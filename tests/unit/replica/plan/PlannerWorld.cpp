#include "unit/replica/plan/PlannerWorld.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "replica/plan/Landing.h"
#include "replica/plan/Plan.h"
#include "replica/plan/Requests.h"
#include "replica/plan/Settling.h"

namespace kestrowan::test {

using replica::plan::Fetch;
using replica::plan::foldersOf;
using replica::plan::kLandingTime;
using replica::plan::Listings;
using replica::plan::Look;
using replica::plan::Names;
using replica::plan::noteAnswer;
using replica::plan::noteFetched;
using replica::plan::noteLostAnswer;
using replica::plan::noteSent;
using replica::plan::Nothing;
using replica::plan::observe;
using replica::plan::planForIntents;
using replica::plan::Push;
using replica::plan::Request;
using replica::plan::requestOf;
using replica::plan::Settle;
using replica::plan::settle;
using replica::plan::Step;
using replica::plan::Stuck;
using replica::plan::WaitFor;
using replica::plan::WaitUntil;

namespace {

/// The landing time is six of these.
constexpr std::chrono::seconds kStep{100};
static_assert(kStep * 6 == kLandingTime);

class ShortNames : public Names {
 public:
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

ContentSet bit(Content content) {
  return content == Content::none ? 0 : ContentSet{1} << static_cast<unsigned>(content);
}

std::string pathHere(const State& state, const Item& item) {
  if (item.number() == ItemNumber::root) return "";
  const Place& place = item.here()->place;
  return pathHere(state, state.item(place.folder)) + "/" + place.name;
}

unsigned depthHere(const State& state, const Item& item) {
  unsigned depth = 0;
  const Item* up = &item;
  for (; up->number() != ItemNumber::root; up = &state.item(up->here()->place.folder)) ++depth;
  return depth;
}

bool isInside(const State& state, const Item& item, const Item& folder) {
  const Item* up = &item;
  while (up != &folder) {
    if (up->number() == ItemNumber::root) return false;
    up = &state.item(up->here()->place.folder);
  }
  return true;
}

}  // namespace

Event Event::here(Kind kind, Place place) {
  Event event;
  event.kind = kind;
  event.place = std::move(place);
  return event;
}

Event Event::here(Kind kind, ItemNumber item, Place place) {
  Event event = here(kind, std::move(place));
  event.item = item;
  return event;
}

Event Event::here(Kind kind, ItemNumber item, ItemNumber other) {
  Event event = here(kind, Place{});
  event.item = item;
  event.other = other;
  return event;
}

Event Event::there(Kind kind, Path source, Path target) {
  Event event;
  event.kind = kind;
  event.source = std::move(source);
  event.target = std::move(target);
  return event;
}

Event Event::same(ItemNumber item, Path target) {
  Event event = there(Kind::putSameThere, {}, std::move(target));
  event.item = item;
  return event;
}

/// What is seen here, folders before what is in them; then what is there; then what is nowhere.
std::vector<const Item*> allItems(const State& state) {
  std::vector<const Item*> items{&state.root()};
  for (std::size_t i = 0; i < items.size(); ++i) {
    for (const Item* item : state.hereIn(items[i]->number())) items.push_back(item);
  }
  std::vector<const Item*> folders{&state.root()};
  const auto add = [&](const Item* item) {
    if (std::find(items.begin(), items.end(), item) == items.end()) items.push_back(item);
  };
  for (std::size_t i = 0; i < folders.size(); ++i) {
    for (const Item* item : state.thereIn(folders[i]->number())) {
      add(item);
      if (item->isFolder()) folders.push_back(item);
    }
  }
  for (const ItemNumber number : state.pending()) add(&state.item(number));
  return items;
}

PlannerWorld::PlannerWorld() = default;

std::string PlannerWorld::text(const Item& item) const {
  const auto state = [](const std::optional<There>& there) {
    if (!there) return std::string("-");
    return std::to_string(static_cast<unsigned>(there->place.folder)) + "/" + there->place.name +
           " v" + there->version.text + " c" +
           std::to_string(static_cast<unsigned>(there->content));
  };
  std::ostringstream out;
  out << (item.isFile() ? "file " : "folder ") << static_cast<unsigned>(item.number()) << " here ";
  if (item.here()) {
    out << static_cast<unsigned>(item.here()->place.folder) << "/" << item.here()->place.name
        << " c" << static_cast<unsigned>(item.here()->content);
  } else {
    out << "-";
  }
  out << ", there " << state(item.there()) << ", agreed " << state(item.agreed());
  for (const ItemNumber other : item.after()) out << " after " << static_cast<unsigned>(other);
  return out.str();
}

std::string PlannerWorld::describe() const {
  const View view(tree_);
  std::ostringstream out;
  for (const Item* item : allItems(*view)) {
    if (item->number() != ItemNumber::root) out << "    " << text(*item) << "\n";
  }
  for (const Intent& intent : view->intents().all()) {
    out << "    intent " << static_cast<unsigned>(intent.verb) << " of "
        << static_cast<unsigned>(intent.item) << " " << (intent.source ? intent.source->text() : "")
        << " -> " << (intent.target ? intent.target->text() : "") << " c"
        << static_cast<unsigned>(intent.content) << (intent.looked ? " looked" : "")
        << (intent.over ? " over" : "") << "\n";
  }
  out << "    provider:";
  for (const auto& [path, entry] : provider_.tree) {
    if (path.isRoot()) continue;
    out << " " << path.text() << (entry.kind == Kind::folder ? "/" : "");
    if (entry.kind == Kind::file) {
      out << " v" << entry.version << " c" << static_cast<unsigned>(entry.content);
    }
  }
  out << "\n";
  return out.str();
}

std::string PlannerWorld::describe(const Event& event) const {
  constexpr const char* kWords[] = {"make",         "make folder", "write",  "move",
                                    "replace",      "swap",        "remove", "put",
                                    "put the same", "make folder", "move",   "remove"};
  std::ostringstream out;
  out << (event.kind < Event::Kind::putThere ? "HERE  " : "THERE ")
      << kWords[static_cast<unsigned>(event.kind)];
  if (event.item != ItemNumber::none) out << " item " << static_cast<unsigned>(event.item);
  if (event.other != ItemNumber::none) out << " with " << static_cast<unsigned>(event.other);
  if (!event.place.name.empty()) {
    out << " to " << static_cast<unsigned>(event.place.folder) << "/" << event.place.name;
  }
  if (!event.source.isRoot()) out << " " << event.source.text();
  if (!event.target.isRoot()) out << " -> " << event.target.text();
  return out.str();
}

std::string PlannerWorld::describe(const Move& move) const {
  if (move.kind == Move::Kind::look) return "look at all";
  if (move.kind == Move::Kind::wait) return "wait";
  std::ostringstream out;
  if (const auto* push = std::get_if<Push>(&move.step)) {
    constexpr const char* kWords[] = {"create", "contents", "move", "remove"};
    out << "push " << kWords[static_cast<unsigned>(push->change)] << " "
        << static_cast<unsigned>(push->item) << " " << static_cast<unsigned>(push->place.folder)
        << "/" << push->place.name << " c" << static_cast<unsigned>(push->content);
  } else if (const auto* edit = std::get_if<Settle>(&move.step)) {
    constexpr const char* kWords[] = {"drop",   "own",   "back", "show",   "join", "aside", "anew",
                                      "forget", "agree", "pull", "beside", "take", "end"};
    out << "settle " << kWords[static_cast<unsigned>(edit->resolution)] << " "
        << static_cast<unsigned>(edit->item) << " " << static_cast<unsigned>(edit->other) << " "
        << edit->place.name;
  } else if (const auto* file = std::get_if<Fetch>(&move.step)) {
    out << "fetch " << static_cast<unsigned>(file->item);
  } else {
    out << "look";
  }
  return out.str();
}

ItemNumber PlannerWorld::add(Kind kind, ItemNumber folder, const std::string& name,
                             bool isDownloaded) {
  const Content content = kind == Kind::file ? newContent() : Content::none;
  Edit edit(tree_);
  const ItemNumber number = edit.make(kind);
  const Place place{folder, name};
  const Path path = *edit->pathOf(place);
  provider_.request(kind == Kind::file ? Verb::put : Verb::makeFolder, std::nullopt, path, content);
  if (kind == Kind::file) contentOf_.push_back(content);
  const Content known = isDownloaded ? content : Content::none;
  const There there{place, ModelProvider::versionOf(*provider_.at(path)), known};
  edit.setHere(number, Here{place, known});
  edit.setThere(number, there);
  edit.setAgreed(number, there);
  edit.commit();
  return number;
}

Content PlannerWorld::newContent() {
  const Content content{++lastContent_};
  if (lastContent_ > 62) throw Broken("the world is too small for so many contents");
  wanted_ |= bit(content);
  return content;
}

void PlannerWorld::forget(Content content) {
  wanted_ &= ~bit(content);
}

/// The bytes that programs see of an item.
Content PlannerWorld::shown(const Item& item) const {
  if (item.isFolder() || !item.here()) return Content::none;
  if (item.here()->content != Content::none || !item.agreed()) return item.here()->content;
  return contentOf_.at(std::stoul("0" + item.agreed()->version.text));
}

ContentSet PlannerWorld::contentsThere() const {
  ContentSet result = 0;
  for (const auto& [path, entry] : provider_.tree) result |= bit(entry.content);
  return result;
}

std::string PlannerWorld::shownTree() const {
  const View view(tree_);
  std::string result;
  std::vector<const Item*> todo{&view->root()};
  while (!todo.empty()) {
    const Item* folder = todo.back();
    todo.pop_back();
    result += ':';
    for (const Item* item : view->hereIn(folder->number())) {
      result += item->here()->place.name;
      result += static_cast<char>(item->kind());
      result += static_cast<char>(shown(*item));
      if (item->isFolder()) todo.push_back(item);
    }
  }
  return result;
}

std::vector<Event> PlannerWorld::eventsHere(const std::vector<std::string>& names) const {
  const View view(tree_);
  std::vector<Event> events;
  std::vector<const Item*> seen{&view->root()};
  std::set<std::string> used;
  for (std::size_t i = 0; i < seen.size(); ++i) {
    for (const Item* item : view->hereIn(seen[i]->number())) seen.push_back(item);
  }
  for (const auto& [path, entry] : provider_.tree) {
    if (!path.isRoot()) used.insert(std::string(path.name()));
  }
  for (const Intent& intent : view->intents().all()) {
    for (const Path& path : intent.paths()) used.insert(std::string(path.name()));
  }
  for (const Item* item : allItems(*view)) {
    if (item->here()) used.insert(item->here()->place.name);
    if (item->there()) used.insert(item->there()->place.name);
    if (item->agreed()) used.insert(item->agreed()->place.name);
  }
  std::vector<std::string> free = names;
  // Names that nothing has are all alike.
  bool hasFresh = false;
  std::erase_if(free, [&](const std::string& name) {
    if (used.contains(name)) return false;
    return std::exchange(hasFresh, true);
  });
  std::vector<Place> places;
  for (const Item* folder : seen) {
    if (folder->isFile() || depthHere(*view, *folder) > 2) continue;
    for (const std::string& name : free) {
      const Place place{folder->number(), name};
      if (!view->hereAt(place)) places.push_back(place);
    }
  }
  for (const Place& place : places) {
    events.push_back(Event::here(Event::Kind::make, place));
    events.push_back(Event::here(Event::Kind::makeFolder, place));
  }
  for (const Item* item : seen) {
    if (item->number() == ItemNumber::root) continue;
    for (const Place& place : places) {
      if (isInside(*view, view->item(place.folder), *item)) continue;
      events.push_back(Event::here(Event::Kind::move, item->number(), place));
    }
    if (item->isFile()) events.push_back(Event::here(Event::Kind::write, item->number()));
    if (!view->anyHereIn(item->number())) {
      events.push_back(Event::here(Event::Kind::remove, item->number()));
    }
    for (const Item* other : seen) {
      if (other->number() == ItemNumber::root || other == item) continue;
      if (isInside(*view, *other, *item)) continue;
      const bool isEmpty = !view->anyHereIn(other->number());
      if (item->kind() == other->kind() && isEmpty) {
        events.push_back(Event::here(Event::Kind::replace, item->number(), other->number()));
      }
      if (item->number() < other->number() && !isInside(*view, *item, *other)) {
        events.push_back(Event::here(Event::Kind::swap, item->number(), other->number()));
      }
    }
  }
  return events;
}

/// A client that writes the bytes of a request without an answer cannot be told from the request.
bool isAsked(const State& state, Content content) {
  return std::any_of(state.intents().all().begin(), state.intents().all().end(),
                     [&](const Intent& intent) { return intent.content == content; });
}

std::vector<Event> PlannerWorld::eventsThere(const std::vector<std::string>& names) const {
  const View view(tree_);
  std::vector<Event> events;
  std::vector<Path> free;
  for (const auto& [path, entry] : provider_.tree) {
    const bool isDeep = !path.isRoot() && !path.folder().isRoot();
    if (entry.kind == Kind::file || isDeep) continue;
    for (const std::string& name : names) {
      if (!provider_.at(path.child(name))) free.push_back(path.child(name));
    }
  }
  for (const Path& path : free) {
    events.push_back(Event::there(Event::Kind::putThere, {}, path));
    events.push_back(Event::there(Event::Kind::makeFolderThere, {}, path));
  }
  for (const auto& [path, entry] : provider_.tree) {
    if (path.isRoot()) continue;
    events.push_back(Event::there(Event::Kind::removeThere, path, {}));
    for (const Path& target : free) {
      if (target.isAtOrBelow(path)) continue;
      events.push_back(Event::there(Event::Kind::moveThere, path, target));
    }
    if (entry.kind == Kind::folder) continue;
    events.push_back(Event::there(Event::Kind::putThere, {}, path));
    const Item* item = view->atPath(path);
    const bool isOurs = item && item->here() && item->here()->content != Content::none &&
                        item->here()->content != entry.content &&
                        !isAsked(*view, item->here()->content);
    if (isOurs) {
      events.push_back(Event::same(item->number(), path));
    }
  }
  // The same new file is made on both sides.
  for (const Path& path : free) {
    const Item* folder = view->atPath(path.folder());
    if (!folder || !folder->here()) continue;
    const Item* item = view->hereAt({folder->number(), std::string(path.name())});
    const bool isOurs =
        item && item->isFile() && !item->there() && item->here()->content != Content::none;
    if (isOurs) {
      events.push_back(Event::same(item->number(), path));
    }
  }
  return events;
}

void PlannerWorld::apply(const Event& event) {
  const bool makes = event.kind == Event::Kind::make || event.kind == Event::Kind::write ||
                     event.kind == Event::Kind::putThere;
  const Content made = makes ? newContent() : Content::none;
  if (event.kind >= Event::Kind::putThere) {
    changeThere(event, made);
  } else {
    change(event, made);
  }
}

void PlannerWorld::change(const Event& event, Content made) {
  Edit edit(tree_);
  switch (event.kind) {
    case Event::Kind::make:
    case Event::Kind::makeFolder: {
      const bool isFile = event.kind == Event::Kind::make;
      edit.setHere(edit.make(isFile ? Kind::file : Kind::folder), Here{event.place, made});
      break;
    }
    case Event::Kind::write:
      forget(shown(edit->item(event.item)));
      edit.setHere(event.item, Here{edit->item(event.item).here()->place, made});
      break;
    case Event::Kind::move:
      edit.setHere(event.item, Here{event.place, edit->item(event.item).here()->content});
      break;
    case Event::Kind::remove:
      forget(shown(edit->item(event.item)));
      edit.setHere(event.item, std::nullopt);
      break;
    case Event::Kind::replace: {
      // What is replaced goes after what replaces it has arrived.
      const Here other = *edit->item(event.other).here();
      forget(shown(edit->item(event.other)));
      edit.setHere(event.other, std::nullopt);
      if (edit->item(event.other).isFile()) edit.addAfter(event.other, event.item);
      edit.setHere(event.item, Here{other.place, edit->item(event.item).here()->content});
      break;
    }
    case Event::Kind::swap: {
      const Here first = *edit->item(event.item).here();
      const Here second = *edit->item(event.other).here();
      edit.setHere(event.item, std::nullopt);
      edit.setHere(event.other, Here{first.place, second.content});
      edit.setHere(event.item, Here{second.place, first.content});
      break;
    }
    default:
      break;
  }
  edit.commit();
}

void PlannerWorld::changeThere(const Event& event, Content made) {
  hasChangedThere_ = isUnseen_ = true;
  Verb verb = Verb::put;
  if (event.kind == Event::Kind::makeFolderThere) verb = Verb::makeFolder;
  if (event.kind == Event::Kind::moveThere) verb = Verb::move;
  if (event.kind == Event::Kind::removeThere) verb = Verb::remove;
  if (event.kind == Event::Kind::putSameThere) {
    const View view(tree_);
    made = view->item(event.item).here()->content;
  }
  const auto* replaced = provider_.at(event.target);
  if (verb == Verb::put && replaced) forget(replaced->content);
  if (verb == Verb::remove) {
    for (const Path& path : provider_.inside(event.source)) forget(provider_.at(path)->content);
  }
  if (event.kind == Event::Kind::putSameThere) wanted_ |= bit(made);
  if (!provider_.request(verb, event.source, event.target, made)) {
    throw Broken("the provider refuses another client");
  }
  if (verb == Verb::put) contentOf_.push_back(made);
  if (verb == Verb::remove || verb == Verb::makeFolder) return;
  for (const Path& path : provider_.inside(event.target)) {
    for (Late& late : late_) late.newer |= bit(provider_.at(path)->content);
  }
}

Move PlannerWorld::next(bool isReversed) const {
  const View view(tree_);
  std::vector<ItemNumber> pending(view->pending().begin(), view->pending().end());
  if (isReversed) std::reverse(pending.begin(), pending.end());
  const auto isIdle = [](const Step& step) {
    return std::holds_alternative<Nothing>(step) || std::holds_alternative<WaitFor>(step) ||
           std::holds_alternative<WaitUntil>(step);
  };
  bool isWaiting = false;
  for (const ItemNumber number : pending) {
    Step step = plan(*view, number, now_, kNames);
    if (std::holds_alternative<Stuck>(step)) throw Broken("stuck");
    if (!isIdle(step)) return {Move::Kind::step, number, std::move(step)};
    isWaiting = isWaiting || !std::holds_alternative<Nothing>(step);
  }
  Step step = planForIntents(*view, now_);
  if (std::holds_alternative<WaitUntil>(step)) return {Move::Kind::wait, {}, std::move(step)};
  if (!isIdle(step)) return {Move::Kind::step, {}, std::move(step)};
  // A folder is explained once, so the request for one may outlive its intent.
  if (!late_.empty()) return {Move::Kind::wait, {}, WaitUntil{now_}};
  if (!pending.empty()) throw Broken("nothing that is pending can go");
  return {};
}

void PlannerWorld::carryOut(const Move& move, Fate fate) {
  const std::string before = shownTree();
  const ContentSet there = contentsThere() & wanted_ & ~strays_;
  if (move.kind == Move::Kind::look) {
    lookAtAll();
  } else if (move.kind == Move::Kind::wait) {
    const Time until = std::get<WaitUntil>(move.step).time;
    const bool isLate = !late_.empty();
    land(1);
    if (!isLate) now_ = std::max(now_, until);
  } else {
    now_ += kStep;
    take(move.step, move.asked, fate);
    if (there & ~contentsThere()) throw Broken("the last copy there is destroyed");
    now_ -= kStep;
    land(1);
  }
  if (!hasChangedThere_ && shownTree() != before) {
    throw Broken("what programs see changes although nothing changed there");
  }
}

void PlannerWorld::lookAtAll() {
  isUnseen_ = false;
  std::set<ItemNumber> known;
  while (true) {
    std::vector<ItemNumber> folders;
    {
      const View view(tree_);
      std::vector<const Item*> todo{&view->root()};
      while (!todo.empty()) {
        const Item* item = todo.back();
        todo.pop_back();
        if (item->isFile()) continue;
        if (known.insert(item->number()).second) folders.push_back(item->number());
        for (const Item* child : view->thereIn(item->number())) todo.push_back(child);
      }
    }
    if (folders.empty()) return;
    look(folders);
  }
}

void PlannerWorld::look(const std::vector<ItemNumber>& folders) {
  Listings listings;
  while (true) {
    Edit edit(tree_);
    const auto lacking = observe(edit, folders, listings, now_);
    if (lacking.empty()) return edit.commit();
    for (const Path& path : lacking) listings[path] = provider_.list(path);
  }
}

void PlannerWorld::take(const Step& step, ItemNumber asked, Fate fate) {
  if (const auto* folders = std::get_if<Look>(&step)) return look(folders->folders);
  if (const auto* file = std::get_if<Fetch>(&step)) return fetch(file->item);
  if (const auto* request = std::get_if<Push>(&step)) return push(*request, asked, fate);
  Edit edit(tree_);
  settle(edit, std::get<Settle>(step));
  edit.commit();
}

void PlannerWorld::fetch(ItemNumber number) {
  ItemNumber folder = ItemNumber::none;
  {
    Edit edit(tree_);
    const Item& item = edit->item(number);
    const auto* entry = provider_.at(edit->therePath(item));
    if (entry && ModelProvider::versionOf(*entry) == item.there()->version) {
      noteFetched(edit, number, item.there()->version, entry->content);
      return edit.commit();
    }
    folder = item.there()->place.folder;
  }
  look({folder});
}

void PlannerWorld::push(const Push& push, ItemNumber asked, Fate fate) {
  std::vector<ItemNumber> folders;
  {
    const View view(tree_);
    folders = foldersOf(*view, push);
  }
  look(folders);
  {
    const View view(tree_);
    if (plan(*view, asked, now_, kNames) != Step(push)) return;
  }
  send(push, fate);
}

void PlannerWorld::send(const Push& push, Fate fate) {
  Request request;
  IntentNumber number;
  {
    Edit edit(tree_);
    request = requestOf(*edit, push);
    number = noteSent(edit, request, now_);
    edit.commit();
  }
  if (fate == Fate::ok || fate == Fate::lostAfter) {
    if (!provider_.request(request.verb, request.source, request.target, request.content)) {
      throw Broken("the provider refuses a request after a look");
    }
    if (request.verb == Verb::put) contentOf_.push_back(request.content);
  }
  if (fate == Fate::lateByOne || fate == Fate::lateByTwo) {
    const unsigned due = fate == Fate::lateByOne ? 1 : 2;
    late_.push_back({due + 1, request.verb, request.source, request.target, request.content, 0});
  }
  Edit edit(tree_);
  if (fate == Fate::ok) {
    const auto* entry = request.target ? provider_.at(*request.target) : nullptr;
    noteAnswer(edit, number, entry ? ModelProvider::versionOf(*entry) : Version{}, now_);
  } else {
    noteLostAnswer(edit, number, now_);
  }
  edit.commit();
}

/// Time passes; what is due lands.
void PlannerWorld::land(unsigned steps) {
  now_ += kStep * steps;
  for (Late& late : late_) late.due -= std::min(late.due, steps);
  const auto all = std::exchange(late_, {});
  for (const Late& late : all) {
    if (late.due > 0) late_.push_back(late);
  }
  for (const Late& late : all) {
    if (late.due == 0) landOne(late);
  }
}

void PlannerWorld::landOne(const Late& late) {
  std::vector<Path> gone;
  if (late.verb == Verb::remove) gone = provider_.inside(*late.source);
  if (late.verb == Verb::put) gone = {*late.target};
  {
    const View view(tree_);
    for (const Path& path : gone) {
      const auto* entry = provider_.at(path);
      if (!entry || !(late.newer & bit(entry->content))) continue;
      // It came between the look before the request and its landing; unless it is shown here, it
      // cannot be known.
      const Item* item = view->atPath(path);
      if (!item || !item->here() || shown(*item) != entry->content) forget(entry->content);
    }
  }
  isUnseen_ = true;
  strays_ |= bit(late.content);
  if (provider_.request(late.verb, late.source, late.target, late.content) &&
      late.verb == Verb::put) {
    contentOf_.push_back(late.content);
  }
}

void PlannerWorld::judge() const {
  const View view(tree_);
  std::map<std::string, std::pair<Kind, Content>> here;
  std::map<std::string, std::pair<Kind, Content>> there;
  ContentSet found = 0;
  std::vector<const Item*> todo{&view->root()};
  std::size_t count = 0;
  while (!todo.empty()) {
    const Item* item = todo.back();
    todo.pop_back();
    ++count;
    here[pathHere(*view, *item)] = {item->kind(), shown(*item)};
    found |= bit(shown(*item));
    if (!item->isInStep()) throw Broken("an item is not in step");
    for (const Item* child : view->hereIn(item->number())) todo.push_back(child);
  }
  for (const auto& [path, entry] : provider_.tree) {
    there[path.isRoot() ? "" : "/" + path.text()] = {entry.kind, entry.content};
  }
  if (here != there) throw Broken("here is not there");
  if (count != view->count()) throw Broken("an item is left that is nowhere");
  if (wanted_ & ~found) throw Broken("contents are lost");
}

}  // namespace kestrowan::test
