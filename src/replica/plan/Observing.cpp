#include "replica/plan/Observing.h"

#include <algorithm>
#include <deque>
#include <set>
#include <utility>

#include "replica/plan/Absence.h"
#include "replica/plan/MovedIntents.h"

namespace kestrowan::replica::plan {

using model::Content;
using model::Edit;
using model::Intent;
using model::Item;
using model::ItemNumber;
using model::Path;
using model::Place;
using model::There;
using model::Time;
using model::Verb;

namespace {

class Look {
 public:
  Look(Edit& edit, const Listings& listings) : edit_(edit), listings_(listings) {}

  void write(const std::vector<ItemNumber>& folders);
  std::vector<Path> lacking() const { return {lacking_.begin(), lacking_.end()}; }

 private:
  using Way = std::pair<Path, Path>;

  std::vector<Way> ways() const;
  bool followMoves();
  bool hasMoved(const Path& source, const Path& target);
  void writeFolder(ItemNumber number, std::deque<ItemNumber>& todo, std::set<ItemNumber>& done);
  void writeAbsent(ItemNumber folder, const Listing& listing);
  void writePresent(ItemNumber folder, const Listing& listing);
  bool isOwnRemoval(const Path& path) const;
  const std::optional<Listing>* listing(const Path& folder);
  const ListedEntry* entry(const Path& path);

  Edit& edit_;
  const Listings& listings_;
  std::set<Path> lacking_;
};

/// Absent when it is lacking, which is noted.
const std::optional<Listing>* Look::listing(const Path& folder) {
  const auto found = listings_.find(folder);
  if (found != listings_.end()) return &found->second;
  lacking_.insert(folder);
  return nullptr;
}

const ListedEntry* Look::entry(const Path& path) {
  const auto* folder = listing(path.folder());
  if (!folder || !*folder) return nullptr;
  const auto found = (*folder)->find(path.name());
  return found == (*folder)->end() ? nullptr : &found->second;
}

/// From where to where moves without an answer may have brought something, the latest first. They
/// may have been one after the other.
std::vector<Look::Way> Look::ways() const {
  std::vector<const Intent*> moves;
  for (const Intent& intent : edit_->intents().all()) {
    if (intent.verb == Verb::move) moves.insert(moves.begin(), &intent);
  }
  std::vector<Way> result;
  for (const Intent* move : moves) {
    std::vector<Path> targets{*move->target};
    for (std::size_t i = 0; i < targets.size(); ++i) {
      for (const Intent* next : moves) {
        const bool goesOn = *next->source == targets[i];
        const bool isNew =
            std::find(targets.begin(), targets.end(), *next->target) == targets.end();
        if (goesOn && isNew) targets.push_back(*next->target);
      }
    }
    for (const Path& target : targets) result.emplace_back(*move->source, target);
  }
  return result;
}

/// Whether one was found to have landed; there may be more then.
bool Look::followMoves() {
  const auto found = ways();
  return std::any_of(found.begin(), found.end(),
                     [&](const Way& way) { return hasMoved(way.first, way.second); });
}

/// The item at the source kept its identity and is at the target now, with all that is in it.
bool Look::hasMoved(const Path& source, const Path& target) {
  const Item* item = edit_->atPath(source);
  const Item* folder = edit_->atPath(target.folder());
  if (!item || !folder) return false;
  const Place place{folder->number(), std::string(target.name())};
  const ListedEntry* found = entry(target);
  const bool isAtSource = entry(source) != nullptr;
  if (!found || found->kind != item->kind() || edit_->thereAt(place)) return false;
  const bool isSameVersion = found->version == item->there()->version;
  // Still at its old place; or a late put made that anew, and the version tells.
  if (isAtSource && (item->isFolder() || !isSameVersion)) return false;
  There there = *item->there();
  if (!isSameVersion) {
    // Moved after a put without an answer: the bytes will tell.
    const auto& intents = edit_->intents().all();
    const bool mayBePut = std::any_of(intents.begin(), intents.end(), [&](const Intent& intent) {
      return intent.verb == Verb::put && intent.target == source;
    });
    if (!mayBePut) return false;
    there.version = found->version;
    there.content = Content::none;
  }
  there.place = place;
  auto agreed = item->agreed();
  if (agreed) agreed->place = place;
  edit_.setAgreed(item->number(), std::move(agreed));
  edit_.setThere(item->number(), std::move(there));
  moveIntents(edit_, source, target);
  return true;
}

bool Look::isOwnRemoval(const Path& path) const {
  const auto& intents = edit_->intents().all();
  return std::any_of(intents.begin(), intents.end(), [&](const Intent& intent) {
    return intent.verb == Verb::remove && path.isAtOrBelow(*intent.source);
  });
}

void Look::writeAbsent(ItemNumber folder, const Listing& listing) {
  for (const Item* item : edit_->thereIn(folder)) {
    const auto found = listing.find(item->there()->place.name);
    if (found != listing.end() && found->second.kind == item->kind()) continue;
    markAbsent(edit_, item->number(), isOwnRemoval(edit_->therePath(*item)));
  }
}

void Look::writePresent(ItemNumber folder, const Listing& listing) {
  for (const auto& [name, entry] : listing) {
    const Place place{folder, name};
    const Item* item = edit_->thereAt(place);
    if (item && item->there()->version == entry.version) continue;
    const ItemNumber number = item ? item->number() : edit_.make(entry.kind);
    edit_.setThere(number, There{place, entry.version, Content::none});
  }
}

void Look::writeFolder(ItemNumber number, std::deque<ItemNumber>& todo,
                       std::set<ItemNumber>& done) {
  const Item* folder = edit_->find(number);
  if (!folder || !folder->there() || !done.insert(number).second) return;
  const auto* listed = listing(edit_->therePath(*folder));
  if (!listed) return;
  if (*listed) {
    writeAbsent(number, **listed);
    writePresent(number, **listed);
  } else if (number != ItemNumber::root) {
    // The folder itself is gone: its own folder tells.
    const ItemNumber up = folder->there()->place.folder;
    todo.push_front(up);
    done.erase(up);
  }
}

void Look::write(const std::vector<ItemNumber>& folders) {
  std::deque<ItemNumber> todo(folders.begin(), folders.end());
  for (const Intent& intent : edit_->intents().all()) {
    for (const Path& path : intent.paths()) {
      if (const Item* folder = edit_->atPath(path.folder())) todo.push_back(folder->number());
    }
  }
  while (followMoves()) {
  }
  std::set<ItemNumber> done;
  while (!todo.empty()) {
    const ItemNumber next = todo.front();
    todo.pop_front();
    writeFolder(next, todo, done);
  }
}

}  // namespace

std::vector<Path> observe(Edit& edit, const std::vector<ItemNumber>& folders,
                          const Listings& listings, Time began) {
  Look look(edit, listings);
  look.write(folders);
  const auto intents = edit->intents().all();
  for (Intent intent : intents) {
    const bool looked = intent.looked || (intent.ended && *intent.ended <= began);
    const bool over = intent.over || intent.until <= began;
    if (looked == intent.looked && over == intent.over) continue;
    intent.looked = looked;
    intent.over = over;
    edit.change(intent);
  }
  return look.lacking();
}

}  // namespace kestrowan::replica::plan
