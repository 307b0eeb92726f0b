#include "replica/plan/Observing.h"

#include <algorithm>
#include <deque>
#include <set>
#include <utility>

#include "replica/model/ShownName.h"
#include "replica/plan/Absence.h"
#include "replica/plan/Belief.h"
#include "replica/plan/MovedIntents.h"
#include "replica/plan/Uncertain.h"

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

std::uint64_t digestOf(const Listing& listing) {
  ListingDigest digest;
  for (const auto& [name, entry] : listing.entries) digest.add(name, entry);
  return digest.value();
}

class Observation {
 public:
  Observation(Edit& edit, const Shown& shown, const Doubts& doubts)
      : edit_(edit), shown_(shown), doubts_(doubts), belief_(doubts_, shown.began) {}

  Written write(const std::vector<ItemNumber>& folders);
  Moved follow(const std::vector<ItemNumber>& folders);
  void end(const std::vector<ItemNumber>& folders);

 private:
  using Way = std::pair<Path, Path>;

  std::vector<Way> ways() const;
  bool followMoves();
  bool hasMoved(const Path& source, const Path& target);
  std::vector<ItemNumber> widened(const std::vector<ItemNumber>& folders);
  void writeFolder(ItemNumber number, std::deque<ItemNumber>& todo);
  void writeAbsent(ItemNumber folder, const Path& path, const Listing& listing);
  void writePresent(ItemNumber folder, const Path& path, const Listing& listing);
  bool isUncertain(const Path& path);
  bool isSeen(const Intent& intent);
  void noteIntents();
  const std::optional<Listing>* listing(const Path& folder);
  const ListedEntry* entry(const Path& path);

  Edit& edit_;
  const Shown& shown_;
  std::set<Path> lacking_;
  std::set<ItemNumber> done_;
  bool isWhole_ = true;
  std::vector<ItemNumber> unproved_;
  Doubts doubts_;
  Belief belief_;
};

/// Absent when it is lacking, which is noted.
const std::optional<Listing>* Observation::listing(const Path& folder) {
  const auto found = shown_.listings.find(folder);
  if (found != shown_.listings.end()) return &found->second;
  lacking_.insert(folder);
  return nullptr;
}

const ListedEntry* Observation::entry(const Path& path) {
  const auto* folder = listing(path.folder());
  if (!folder || !*folder) return nullptr;
  const auto found = (*folder)->entries.find(path.name());
  return found == (*folder)->entries.end() ? nullptr : &found->second;
}

/// What is listed there says nothing, and is left as it is known.
bool Observation::isUncertain(const Path& path) {
  const bool result = plan::isUncertain(*edit_, path, shown_.answered);
  isWhole_ = isWhole_ && !result;
  return result;
}

/// From where to where moves without an answer may have brought something, the latest first. They
/// may have been one after the other.
std::vector<Observation::Way> Observation::ways() const {
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
bool Observation::followMoves() {
  const auto found = ways();
  return std::any_of(found.begin(), found.end(),
                     [&](const Way& way) { return hasMoved(way.first, way.second); });
}

/// The item at the source kept its identity and is at the target now, with all that is in it.
bool Observation::hasMoved(const Path& source, const Path& target) {
  const Item* item = edit_->atPath(source);
  const Item* folder = edit_->folderOf(target);
  if (!item || !folder) return false;
  const Place place{folder->number(), std::string(target.name())};
  const bool isShown =
      shown_.listings.contains(source.folder()) && shown_.listings.contains(target.folder());
  if (!isShown || isUncertain(source)) return false;
  const ListedEntry* found = entry(target);
  const bool isAtSource = entry(source) != nullptr;
  if (!found || found->kind != item->kind() || edit_->thereAt(place)) return false;
  const bool isSameVersion = found->version == item->there()->version;
  // Still at its old place; or a late put made that anew, and the version tells.
  if (isAtSource && (item->isFolder() || !isSameVersion)) return false;
  There there = *item->there();
  if (!isSameVersion) {
    // Moved after a put without an answer: the bytes will tell.
    const auto intents = edit_->intents().atOrAbove(source);
    const bool mayBePut = std::any_of(intents.begin(), intents.end(), [&](const Intent* intent) {
      return intent->verb == Verb::put && intent->target == source;
    });
    if (!mayBePut) return false;
    there.version = found->version;
    there.content = Content::none;
  }
  model::putAt(there, place);
  auto agreed = item->agreed();
  if (agreed) model::putAt(*agreed, place);
  edit_.setAgreed(item->number(), std::move(agreed));
  edit_.setThere(item->number(), std::move(there));
  moveIntents(edit_, source, target, shown_.began);
  return true;
}

void Observation::writeAbsent(ItemNumber folder, const Path& path, const Listing& listing) {
  std::vector<ItemNumber> lacked;
  Belief::Loss loss{folder, 0, 0, listing.entries.empty(), [&] { return digestOf(listing); }};
  for (const Item* item : edit_->thereIn(folder)) {
    const std::string& name = item->there()->place.name;
    if (isUncertain(path.child(name))) continue;
    ++loss.known;
    const auto found = listing.entries.find(name);
    if (found != listing.entries.end() && found->second.kind == item->kind()) {
      belief_.seen(item->number());
    } else if (listing.isWhole && isOwnRemoval(*edit_, path.child(name))) {
      markAbsent(edit_, item->number(), true);
    } else {
      lacked.push_back(item->number());
      if (item->here() && found == listing.entries.end()) ++loss.lost;
    }
  }
  if (listing.isWhole && belief_.isBelieved(loss)) {
    std::erase_if(lacked, [&](ItemNumber number) {
      return !belief_.isAbsent(number, Belief::losesNothing(*edit_, edit_->item(number)));
    });
    for (const ItemNumber number : lacked) markAbsent(edit_, number, false);
  }
  if (!listing.isWhole || doubts_.suspected.contains(folder)) unproved_.push_back(folder);
}

void Observation::writePresent(ItemNumber folder, const Path& path, const Listing& listing) {
  for (const auto& [name, entry] : listing.entries) {
    if (isUncertain(path.child(name))) continue;
    observeEntry(edit_, {folder, name}, entry);
  }
}

void Observation::writeFolder(ItemNumber number, std::deque<ItemNumber>& todo) {
  const Item* folder = edit_->find(number);
  if (!folder || !folder->there() || done_.contains(number)) return;
  const Path path = edit_->therePath(*folder);
  if (isUncertain(path)) return;
  const auto* listed = listing(path);
  if (!listed) return;
  done_.insert(number);
  if (*listed) {
    writeAbsent(number, path, **listed);
    writePresent(number, path, **listed);
  } else if (number != ItemNumber::root) {
    // The folder itself is gone: its own folder tells.
    todo.push_front(folder->there()->place.folder);
  }
}

/// With the folders that moves without an answer join to these.
std::vector<ItemNumber> Observation::widened(const std::vector<ItemNumber>& folders) {
  std::vector<ItemNumber> result;
  const auto add = [&](const Item* folder) {
    if (!folder || !folder->there() || folder->isFile()) return;
    const bool isNew = std::find(result.begin(), result.end(), folder->number()) == result.end();
    if (isNew) result.push_back(folder->number());
  };
  for (const ItemNumber folder : folders) add(edit_->find(folder));
  for (std::size_t i = 0; i < result.size(); ++i) {
    const Item& folder = edit_->item(result[i]);
    const Path path = edit_->therePath(folder);
    if (isUncertain(path)) continue;
    const auto* listed = listing(path);
    const bool isGone = listed && !*listed && folder.number() != ItemNumber::root;
    if (isGone) add(&edit_->item(folder.there()->place.folder));
    auto intents = edit_->intents().in(path);
    const auto above = edit_->intents().atOrAbove(path);
    intents.insert(intents.end(), above.begin(), above.end());
    for (const Intent* intent : intents) {
      if (intent->verb != Verb::move) continue;
      for (const Path& other : intent->paths()) add(edit_->folderOf(other));
    }
  }
  return result;
}

/// What is known of the request's places is what was listed now.
bool Observation::isSeen(const Intent& intent) {
  const auto paths = intent.paths();
  return std::all_of(paths.begin(), paths.end(), [&](const Path& path) {
    const Item* folder = edit_->folderOf(path);
    return !isUncertain(path) && (!folder || done_.contains(folder->number()));
  });
}

void Observation::noteIntents() {
  std::vector<Intent> changed;
  for (Intent intent : edit_->intents().all()) {
    if (intent.isUnderWay() || *intent.ended > shown_.began || !isSeen(intent)) continue;
    const bool over = intent.over || intent.until <= shown_.began;
    if (intent.looked && over == intent.over) continue;
    intent.looked = true;
    intent.over = over;
    changed.push_back(std::move(intent));
  }
  for (const Intent& intent : changed) edit_.change(intent);
}

Written Observation::write(const std::vector<ItemNumber>& folders) {
  const auto wide = widened(folders);
  if (lacking_.empty()) {
    while (followMoves()) {
    }
    std::deque<ItemNumber> todo(wide.begin(), wide.end());
    while (!todo.empty()) {
      const ItemNumber next = todo.front();
      todo.pop_front();
      writeFolder(next, todo);
    }
  }
  if (lacking_.empty()) noteIntents();
  std::erase_if(doubts_.missing, [&](const auto& one) {
    const Item* item = edit_->find(one.first);
    return !item || !item->there();
  });
  return {{lacking_.begin(), lacking_.end()}, isWhole_, std::move(unproved_), std::move(doubts_)};
}

Moved Observation::follow(const std::vector<ItemNumber>& folders) {
  const auto wide = widened(folders);
  while (lacking_.empty() && followMoves()) {
  }
  for (const ItemNumber number : wide) {
    const Item* folder = edit_->find(number);
    if (!folder || !folder->there()) continue;
    const Path path = edit_->therePath(*folder);
    if (!isUncertain(path)) listing(path);
  }
  return {{lacking_.begin(), lacking_.end()}, wide};
}

void Observation::end(const std::vector<ItemNumber>& folders) {
  done_.insert(folders.begin(), folders.end());
  noteIntents();
}

}  // namespace

Moved observeMoves(Edit& edit, const std::vector<ItemNumber>& folders, const Shown& shown) {
  return Observation(edit, shown, {}).follow(folders);
}

void observeEntry(Edit& edit, const Place& place, const ListedEntry& entry) {
  const Item* item = edit->thereAt(place);
  // One of another kind, which may be there still.
  if (item && item->kind() != entry.kind) return;
  if (item && item->there()->version == entry.version) return;
  const ItemNumber number = item ? item->number() : edit.make(entry.kind);
  edit.setThere(number, There{place, entry.version, Content::none});
}

void observeEnd(Edit& edit, const std::vector<ItemNumber>& folders, const Shown& shown) {
  Observation(edit, shown, {}).end(folders);
}

Written observe(Edit& edit, const std::vector<ItemNumber>& folders, const Shown& shown,
                const Doubts& doubts) {
  return Observation(edit, shown, doubts).write(folders);
}

}  // namespace kestrowan::replica::plan
