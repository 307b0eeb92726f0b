// A world as a short text of bytes, and back. Items, contents and versions get new numbers in the
// order in which they come, so that worlds that differ only in them have the same text.

#include <algorithm>
#include <array>
#include <unordered_map>

#include "unit/replica/plan/NameUses.h"
#include "unit/replica/plan/PlannerWorld.h"

namespace kestrowan::test {

namespace {

constexpr unsigned kStep = 100;
/// How long before now a look that was asked for began, when a world is read.
constexpr std::chrono::seconds kBefore{10};
constexpr unsigned kNoItem = 0;
/// An item that is no more, in an agreed state.
constexpr unsigned kGone = 254;
constexpr ItemNumber kGoneNumber{100000};

/// Texts by numbers, for the life of the process.
class Dictionary {
 public:
  unsigned number(const std::string& text) {
    const auto [found, isNew] = numbers_.try_emplace(text, texts_.size());
    if (isNew) texts_.push_back(text);
    return static_cast<unsigned>(found->second);
  }
  const std::string& text(unsigned number) const { return texts_.at(number); }

 private:
  std::unordered_map<std::string, std::size_t> numbers_;
  std::vector<std::string> texts_;
};

Dictionary& dictionary() {
  static Dictionary shared;
  return shared;
}

Path pathOf(const std::string& text) {
  Path path;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('/', begin), text.size());
    path = path.child(std::string_view(text).substr(begin, end - begin));
    begin = end + 1;
  }
  return path;
}

}  // namespace

class WorldWriter {
 public:
  WorldWriter(const PlannerWorld& world, const Renaming& renaming)
      : planner_(world), world_(world.world_), renaming_(renaming), view_(world_.tree) {}

  std::string write() {
    items_ = allItems(*view_, renaming_);
    byte(static_cast<unsigned>(items_.size()));
    for (std::size_t i = 1; i < items_.size(); ++i) item(*items_[i]);
    byte(static_cast<unsigned>(view_->intents().all().size()));
    for (const Intent& one : view_->intents().all()) intent(one);
    tree(world_.provider.tree);
    flights(planner_.flights_);
    flights(planner_.late_);
    byte(planner_.asked_ ? 1 : 0);
    if (planner_.asked_) {
      tree(planner_.asked_->tree);
      byte(static_cast<unsigned>(planner_.asked_->answered.size()));
      for (const Path& one : planner_.asked_->answered) word(one.text());
    }
    byte(static_cast<unsigned>(planner_.held_.size()));
    for (const auto& step : planner_.held_) held(step);
    tables();
    return std::move(out_);
  }

 private:
  void byte(unsigned value) { out_ += static_cast<char>(value); }
  void word(const std::string& text) { renamed(renaming_(text)); }
  void renamed(const std::string& text) {
    const unsigned number = dictionary().number(text);
    byte(number & 0xFF);
    byte(number >> 8);
  }
  void path(const std::optional<Path>& path) {
    byte(path ? 1 : 0);
    if (path) word(path->text());
  }
  void number(ItemNumber number) {
    if (number == ItemNumber::none) return byte(kNoItem);
    const auto found = std::find_if(items_.begin(), items_.end(),
                                    [&](const Item* item) { return item->number() == number; });
    byte(found == items_.end() ? kGone : static_cast<unsigned>(found - items_.begin()) + 1);
  }
  void content(Content content) {
    if (content == Content::none) return byte(0);
    auto& known = contents_.at(static_cast<std::size_t>(content));
    if (known == 0) {
      contentOrder_.push_back(content);
      known = static_cast<unsigned>(contentOrder_.size());
    }
    byte(known);
  }
  void version(const Version& version) {
    if (version.text.empty()) return byte(0);
    const auto found = std::find(versions_.begin(), versions_.end(), version.text);
    if (found == versions_.end()) versions_.push_back(version.text);
    const auto index = static_cast<std::size_t>(
        std::find(versions_.begin(), versions_.end(), version.text) - versions_.begin());
    byte(static_cast<unsigned>(index) + 1);
  }
  void state(const std::optional<There>& state) {
    byte(state ? 1 : 0);
    if (!state) return;
    number(state->place.folder);
    word(state->place.name);
    version(state->version);
    content(state->content);
  }
  void item(const Item& item) {
    byte(static_cast<unsigned>(item.kind()));
    byte(item.here() ? 1 : 0);
    if (item.here()) {
      number(item.here()->place.folder);
      word(item.here()->place.name);
      content(item.here()->content);
    }
    state(item.there());
    state(item.agreed());
    std::vector<ItemNumber> after;
    for (const ItemNumber other : item.after()) {
      if (view_->find(other)) after.push_back(other);
    }
    byte(static_cast<unsigned>(after.size()));
    for (const ItemNumber other : after) number(other);
  }
  void tree(const std::map<Path, ModelProvider::Entry>& tree) {
    byte(static_cast<unsigned>(tree.size()));
    std::map<std::string, const ModelProvider::Entry*> ordered;
    for (const auto& [path, entry] : tree) ordered[renaming_(path.text())] = &entry;
    for (const auto& [text, entry] : ordered) {
      renamed(text);
      byte(static_cast<unsigned>(entry->kind));
      version(ModelProvider::versionOf(*entry));
      content(entry->content);
    }
  }
  void flights(const std::vector<PlannerWorld::Flight>& flights) {
    byte(static_cast<unsigned>(flights.size()));
    for (const auto& flight : flights) {
      const auto& all = view_->intents().all();
      const auto found = std::find_if(all.begin(), all.end(), [&](const Intent& intent) {
        return intent.number == flight.intent;
      });
      byte(found == all.end() ? 0 : static_cast<unsigned>(found - all.begin()) + 1);
      byte(static_cast<unsigned>(flight.fate));
      byte(flight.due);
      byte(static_cast<unsigned>(flight.verb));
      path(flight.source);
      path(flight.target);
      content(flight.content);
      version(flight.version);
      byte(flight.isDisturbed ? 1 : 0);
    }
  }
  void held(const replica::plan::Step& step) {
    if (const auto* push = std::get_if<replica::plan::Push>(&step)) {
      byte(1);
      byte(static_cast<unsigned>(push->change));
      number(push->item);
      number(push->place.folder);
      word(push->place.name);
      content(push->content);
    } else if (const auto* fetch = std::get_if<replica::plan::Fetch>(&step)) {
      byte(2);
      number(fetch->item);
    } else {
      const auto& folders = std::get<replica::plan::Look>(step).folders;
      byte(3);
      byte(static_cast<unsigned>(folders.size()));
      for (const ItemNumber folder : folders) number(folder);
    }
  }
  void intent(const Intent& intent) {
    byte(static_cast<unsigned>(intent.verb));
    number(intent.item);
    path(intent.source);
    path(intent.target);
    content(intent.content);
    const auto left =
        std::chrono::duration_cast<std::chrono::seconds>(intent.until - planner_.now_);
    const bool isCounted = !intent.isUnderWay() && left.count() > 0;
    byte(isCounted ? static_cast<unsigned>(left.count()) / kStep : 0);
    const auto& asked = planner_.asked_;
    byte((intent.looked ? 1 : 0) + (intent.over ? 2 : 0) + (intent.isUnderWay() ? 4 : 0) +
         (asked && intent.ended && *intent.ended <= asked->began ? 8 : 0) +
         (asked && intent.until <= asked->began ? 16 : 0));
  }
  /// What is known of contents and versions by their numbers.
  void tables() {
    byte(static_cast<unsigned>(versions_.size()));
    for (const std::string& version : versions_) content(world_.contentOf.at(std::stoul(version)));
    for (unsigned i = 1; i <= world_.lastContent; ++i) {
      if ((world_.wanted >> i & 1) != 0) content(Content{i});
    }
    std::size_t written = out_.size();
    byte(static_cast<unsigned>(contentOrder_.size()));
    for (const Content one : contentOrder_) {
      const auto i = static_cast<unsigned>(one);
      unsigned flags = (world_.wanted >> i & 1) + 2 * (world_.strays >> i & 1);
      unsigned weight = 4;
      for (const auto* flights : {&planner_.flights_, &planner_.late_}) {
        for (const auto& flight : *flights) {
          flags += weight * static_cast<unsigned>(flight.newer >> i & 1);
          weight *= 2;
        }
      }
      byte(flags);
    }
    // Where the tables begin cannot be told otherwise: wanted contents that are nowhere stand
    // between them.
    byte(static_cast<unsigned>(out_.size() - written));
    byte((world_.hasChangedThere ? 1 : 0) + (world_.isUnseen ? 2 : 0));
  }

  const PlannerWorld& planner_;
  const ModelWorld& world_;
  const Renaming& renaming_;
  View view_;
  std::string out_;
  std::vector<const Item*> items_;
  std::array<unsigned, 64> contents_{};
  std::vector<Content> contentOrder_;
  std::vector<std::string> versions_;
};

class WorldReader {
 public:
  WorldReader(PlannerWorld& world, const std::string& text)
      : planner_(world), world_(world.world_), text_(text) {}

  void read() {
    {
      Edit edit(world_.tree);
      const unsigned count = byte();
      kindsAt(edit, count);
      intents(edit);
      edit.commit();
    }
    world_.provider.tree = tree();
    planner_.flights_ = flights();
    planner_.late_ = flights();
    if (byte() == 1) {
      auto& asked = planner_.asked_.emplace();
      asked.tree = tree();
      asked.began = planner_.now_ - kBefore;
      for (unsigned left = byte(); left > 0; --left) asked.answered.push_back(pathOf(word()));
    }
    for (unsigned left = byte(); left > 0; --left) planner_.held_.push_back(held());
    tables();
  }

 private:
  unsigned byte() { return static_cast<unsigned char>(text_[at_++]); }
  const std::string& word() {
    const unsigned low = byte();
    return dictionary().text(low + (byte() << 8));
  }
  std::optional<Path> path() {
    if (byte() == 0) return std::nullopt;
    return pathOf(word());
  }
  static ItemNumber numberOf(unsigned number) {
    return number == kGone ? kGoneNumber : ItemNumber{number};
  }
  Place place() {
    const ItemNumber folder = numberOf(byte());
    return {folder, word()};
  }
  std::optional<There> state() {
    if (byte() == 0) return std::nullopt;
    There there;
    there.place = place();
    there.version = versionOf(byte());
    there.content = Content{byte()};
    return there;
  }
  static Version versionOf(unsigned version) {
    return {version == 0 ? std::string() : std::to_string(version)};
  }
  void kindsAt(Edit& edit, unsigned count) {
    // The kinds stand before what they are needed for, so the items are made one by one.
    for (unsigned i = 2; i <= count; ++i) {
      const ItemNumber number = edit.make(static_cast<Kind>(byte()));
      if (byte() == 1) {
        Here here;
        here.place = place();
        here.content = Content{byte()};
        edit.setHere(number, here);
      }
      edit.setThere(number, state());
      edit.setAgreed(number, state());
      for (unsigned left = byte(); left > 0; --left) edit.addAfter(number, numberOf(byte()));
    }
  }
  std::map<Path, ModelProvider::Entry> tree() {
    std::map<Path, ModelProvider::Entry> result;
    for (unsigned left = byte(); left > 0; --left) {
      auto& entry = result[Path(pathOf(word()))];
      entry.kind = static_cast<Kind>(byte());
      entry.version = byte();
      entry.content = Content{byte()};
    }
    return result;
  }
  std::vector<PlannerWorld::Flight> flights() {
    std::vector<PlannerWorld::Flight> result;
    for (unsigned left = byte(); left > 0; --left) {
      auto& flight = result.emplace_back();
      flight.intent = IntentNumber{byte()};
      flight.fate = static_cast<Fate>(byte());
      flight.due = byte();
      flight.verb = static_cast<Verb>(byte());
      flight.source = path();
      flight.target = path();
      flight.content = Content{byte()};
      flight.version = versionOf(byte());
      flight.isDisturbed = byte() == 1;
    }
    return result;
  }
  replica::plan::Step held() {
    const unsigned kind = byte();
    if (kind == 1) {
      replica::plan::Push push;
      push.change = static_cast<replica::plan::Change>(byte());
      push.item = numberOf(byte());
      push.place = place();
      push.content = Content{byte()};
      return push;
    }
    if (kind == 2) return replica::plan::Fetch{numberOf(byte())};
    replica::plan::Look look;
    for (unsigned left = byte(); left > 0; --left) look.folders.push_back(numberOf(byte()));
    return look;
  }
  void intents(Edit& edit) {
    for (unsigned left = byte(); left > 0; --left) {
      Intent intent;
      intent.verb = static_cast<Verb>(byte());
      intent.item = numberOf(byte());
      intent.source = path();
      intent.target = path();
      intent.content = Content{byte()};
      const Time now = planner_.now_;
      intent.until = now + std::chrono::seconds(byte() * kStep);
      const unsigned flags = byte();
      intent.looked = (flags & 1) != 0;
      intent.over = (flags & 2) != 0;
      if ((flags & 4) == 0) intent.ended = (flags & 8) != 0 ? now - kBefore : now;
      if ((flags & 16) != 0) intent.until = now - kBefore;
      edit.add(intent);
    }
  }
  void tables() {
    const unsigned versions = byte();
    for (unsigned i = 0; i < versions; ++i) world_.contentOf.push_back(Content{byte()});
    world_.provider.lastVersion = versions;
    // Read from the end: what stands between was told by the numbers already.
    const unsigned last = static_cast<unsigned char>(text_.back());
    world_.hasChangedThere = (last & 1) != 0;
    world_.isUnseen = (last & 2) != 0;
    const unsigned length = static_cast<unsigned char>(text_[text_.size() - 2]);
    const std::size_t begin = text_.size() - 2 - length;
    const auto count = static_cast<unsigned char>(text_[begin]);
    world_.lastContent = count;
    for (unsigned i = 1; i <= count; ++i) {
      const auto flags = static_cast<unsigned char>(text_[begin + i]);
      world_.wanted |= ContentSet{flags & 1U} << i;
      world_.strays |= ContentSet{flags >> 1 & 1U} << i;
      unsigned shift = 2;
      for (auto* flights : {&planner_.flights_, &planner_.late_}) {
        for (auto& flight : *flights) flight.newer |= ContentSet{flags >> shift++ & 1U} << i;
      }
    }
  }

  PlannerWorld& planner_;
  ModelWorld& world_;
  const std::string& text_;
  std::size_t at_ = 0;
};

PlannerWorld::PlannerWorld(const std::string& text) {
  WorldReader(*this, text).read();
}

/// What names are used for in a world.
class WorldNames {
 public:
  WorldNames(const PlannerWorld& world, const std::vector<std::string>& names) : uses_(names) {
    const View view(world.world_.tree);
    for (const Item* one : allItems(*view)) item(*view, *one);
    for (const Intent& one : view->intents().all()) intent(one);
    for (const auto& [path, entry] : world.world_.provider.tree) {
      uses_.add(path.text(), 1000 + static_cast<unsigned>(entry.kind));
    }
    for (const auto* flights : {&world.flights_, &world.late_}) {
      for (const auto& flight : *flights) {
        const unsigned use = 2000 + 10 * static_cast<unsigned>(flight.verb) + flight.due;
        if (flight.source) uses_.add(flight.source->text(), use);
        if (flight.target) uses_.add(flight.target->text(), use + 500);
      }
    }
  }

  std::vector<Renaming> inOrder() const { return uses_.inOrder(); }

 private:
  void item(const State& state, const Item& item) {
    const auto& here = item.here();
    const auto& there = item.there();
    const auto& agreed = item.agreed();
    unsigned shape = item.isFile() ? 1 : 0;
    for (const bool one :
         {here.has_value(), there.has_value(), agreed.has_value(),
          here && here->content == Content::none, there && there->content == Content::none,
          here && agreed && here->content == agreed->content, item.isNewThere(),
          state.anyHereIn(item.number()) != nullptr, state.anyThereIn(item.number()) != nullptr,
          here && here->place.folder == ItemNumber::root,
          there && there->place.folder == ItemNumber::root,
          agreed && agreed->place.folder == ItemNumber::root}) {
      shape = shape * 2 + (one ? 1 : 0);
    }
    if (here) uses_.add(here->place.name.view(), 10000 + shape * 4);
    if (there) uses_.add(there->place.name.view(), 10001 + shape * 4);
    if (agreed) uses_.add(agreed->place.name.view(), 10002 + shape * 4);
  }
  void intent(const Intent& intent) {
    const unsigned use = 4000 + 10 * static_cast<unsigned>(intent.verb) + (intent.looked ? 1 : 0) +
                         (intent.over ? 2 : 0) + (intent.isUnderWay() ? 4 : 0);
    if (intent.source) uses_.add(intent.source->text(), use);
    if (intent.target) uses_.add(intent.target->text(), use + 500);
  }

  NameUses uses_;
};

std::string PlannerWorld::encoded(const std::vector<std::string>& alike, Renaming* used) const {
  const auto renamings =
      alike.empty() ? std::vector<Renaming>(1) : WorldNames(*this, alike).inOrder();
  std::string least;
  for (const Renaming& renaming : renamings) {
    std::string text = WorldWriter(*this, renaming).write();
    if (!least.empty() && least <= text) continue;
    least = std::move(text);
    if (used) *used = renaming;
  }
  return least;
}

}  // namespace kestrowan::test
