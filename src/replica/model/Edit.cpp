#include "replica/model/Edit.h"

#include <algorithm>
#include <set>
#include <utility>

#include "platform/base/Fatal.h"
#include "replica/model/Seen.h"

namespace kestrowan::replica::model {

namespace {

bool haveSameVersion(const Shared<There>& one, const Shared<There>& other) {
  return one && other && one->version == other->version;
}

/// The bytes are no longer on this disk, but are still those that the item has.
bool isOnlyEvicted(const Item& before, const Item* now) {
  if (!now || !now->here() || now->here()->content != Content::none) return false;
  return haveSameVersion(before.agreed(), now->agreed()) &&
         before.agreed()->content == before.here()->content;
}

}  // namespace

Edit::Edit(Tree& tree, Origin origin) : tree_(tree), origin_(origin) {
  tree.mutex_.lock();
  state_ = &tree.state_;
  nextItemBefore_ = state_->nextItem_;
  nextIntentBefore_ = state_->nextIntent_;
}

Edit::~Edit() {
  if (!isCommitted_) undo();
  tree_.mutex_.unlock();
  if (!isCommitted_) return;
  for (Watcher* watcher : tree_.watchers_) watcher->released();
}

Item& Edit::touched(ItemNumber number) {
  Item& item = state_->changeable(number);
  before_.try_emplace(number, item);
  return item;
}

ItemNumber Edit::make(Kind kind) {
  const ItemNumber number = state_->make(kind);
  before_.emplace(number, std::nullopt);
  return number;
}

void Edit::setHere(ItemNumber number, OptionalHere here) {
  state_->setHere(touched(number), std::move(here));
}

void Edit::setThere(ItemNumber number, Shared<There> there) {
  state_->setThere(touched(number), std::move(there));
}

void Edit::setAgreed(ItemNumber number, Shared<There> agreed) {
  Item& item = touched(number);
  if (!haveSameVersion(item.agreed(), agreed)) described_.erase(number);
  state_->setAgreed(item, std::move(agreed));
}

void Edit::describeAgreed(ItemNumber number, Shared<There> agreed) {
  Item& item = touched(number);
  const auto& before = before_.at(number);
  if (before && haveSameVersion(before->agreed(), item.agreed())) described_.insert(number);
  state_->setAgreed(item, std::move(agreed));
}

void Edit::addAfter(ItemNumber number, ItemNumber other) {
  Item& item = touched(number);
  std::vector<ItemNumber> after = item.after();
  const auto place = std::lower_bound(after.begin(), after.end(), other);
  if (place != after.end() && *place == other) return;
  after.insert(place, other);
  state_->setAfter(item, std::move(after));
}

void Edit::clearAfter(ItemNumber number) {
  state_->setAfter(touched(number), {});
}

void Edit::setAttributes(ItemNumber number, Attributes attributes) {
  state_->setAttributes(touched(number), std::move(attributes));
}

void Edit::noteChange(ItemNumber number) {
  touched(number);
  touched_.insert(number);
}

void Edit::drop(ItemNumber number) {
  if (number == ItemNumber::root) fatalError("the root cannot be dropped");
  touched(number);
  state_->take(number);
}

void Edit::keep(IntentNumber number) {
  const Intent* intent = state_->intents_.find(number);
  intentsBefore_.try_emplace(number, intent ? std::optional(*intent) : std::nullopt);
}

IntentNumber Edit::add(Intent intent) {
  intent.number = state_->nextIntent_;
  keep(intent.number);
  state_->nextIntent_ = IntentNumber{static_cast<std::uint64_t>(intent.number) + 1};
  state_->intents_.put(intent);
  return intent.number;
}

void Edit::change(const Intent& intent) {
  if (!state_->intents_.find(intent.number)) fatalError("an intent was changed that is no more");
  keep(intent.number);
  state_->intents_.put(intent);
}

void Edit::end(IntentNumber number) {
  if (!state_->intents_.find(number)) return;
  keep(number);
  state_->intents_.take(number);
}

void Edit::commit() {
  if (isCommitted_) fatalError("an edit was committed twice");
  for (const auto& [number, before] : before_) {
    if (const Item* item = state_->find(number)) checkFolders(*item);
  }
  if (tree_.clock_) {
    const FileTime now = tree_.clock_();
    stampFolders(now);
    stamp(now);
  }
  const auto told = tree_.watchers_.empty() ? std::vector<ItemChange>() : itemChanges();
  tree_.journal_.write(changes());
  isCommitted_ = true;
  for (Watcher* watcher : tree_.watchers_) watcher->changed(told, origin_);
}

/// The folders into which something came here, or which something left. One that had never been
/// listed has been so before this was known.
std::vector<ItemNumber> Edit::changedFolders() const {
  std::vector<ItemNumber> folders;
  std::map<Place, int> names;
  for (const auto& [number, before] : before_) {
    const Item* now = state_->find(number);
    const bool wasHere = before && before->here();
    const bool isHere = now && now->here();
    if (wasHere && isHere && before->here()->place != now->here()->place) {
      folders.push_back(before->here()->place.folder);
      folders.push_back(now->here()->place.folder);
    }
    if (wasHere && !isHere) --names[before->here()->place];
    if (!wasHere && isHere) ++names[now->here()->place];
  }
  for (const auto& [place, change] : names) {
    // Another item under the same name is no change of the folder.
    if (change != 0) folders.push_back(place.folder);
  }
  std::sort(folders.begin(), folders.end());
  folders.erase(std::unique(folders.begin(), folders.end()), folders.end());
  std::erase_if(folders, [this](ItemNumber number) {
    const Item* before = itemBefore(number);
    const bool isKnown = before && (origin_ == Origin::program || before->attributes().listedAt);
    return !isKnown || !state_->find(number);
  });
  return folders;
}

void Edit::stampFolders(FileTime now) {
  for (const ItemNumber number : changedFolders()) {
    Attributes attributes = state_->item(number).attributes();
    attributes.modified = later(seen(state_->item(number)).modified, now);
    setAttributes(number, std::move(attributes));
  }
}

/// Notes when what programs see of an item changed.
void Edit::stamp(FileTime now) {
  std::set<ItemNumber> changed = touched_;
  for (const ItemChange& change : itemChanges()) {
    if (!change.before || !change.now || !change.before->here() || !change.now->here()) continue;
    const bool isChanged = change.isElsewhereHere() || change.hasOtherContents() ||
                           seen(*change.before) != seen(*change.now);
    if (isChanged) changed.insert(change.now->number());
  }
  for (const ItemNumber number : changed) {
    const Item& item = state_->item(number);
    Attributes attributes = item.attributes();
    const FileTime before = attributes.changed.value_or(seen(item).modified);
    attributes.changed = later(before, now);
    setAttributes(number, std::move(attributes));
  }
}

void Edit::undo() {
  for (const auto& [number, before] : before_) {
    if (state_->find(number)) state_->take(number);
  }
  for (const auto& [number, before] : before_) {
    if (before) state_->put(*before);
  }
  for (const auto& [number, before] : intentsBefore_) {
    state_->intents_.take(number);
    if (before) state_->intents_.put(*before);
  }
  state_->nextItem_ = nextItemBefore_;
  state_->nextIntent_ = nextIntentBefore_;
}

Changes Edit::changes() const {
  Changes changes;
  for (const auto& [number, before] : before_) {
    if (const Item* item = state_->find(number)) {
      if (before != *item) changes.items.push_back(item);
    } else if (before) {
      changes.dropped.push_back(number);
    }
  }
  std::sort(changes.items.begin(), changes.items.end(),
            [](const Item* a, const Item* b) { return a->number() < b->number(); });
  std::sort(changes.dropped.begin(), changes.dropped.end());
  addIntents(changes);
  addLeft(changes);
  changes.nextItem = state_->nextItem_;
  changes.nextIntent = state_->nextIntent_;
  return changes;
}

std::vector<ItemChange> Edit::itemChanges() const {
  std::vector<ItemChange> result;
  for (const auto& [number, before] : before_) {
    const ItemChange change{before ? &*before : nullptr, state_->find(number),
                            described_.contains(number)};
    if (!change.before && !change.now) continue;
    const bool isChanged = !change.before || !change.now || *change.before != *change.now;
    if (isChanged) result.push_back(change);
  }
  std::sort(result.begin(), result.end(), [](const ItemChange& a, const ItemChange& b) {
    return a.any().number() < b.any().number();
  });
  return result;
}

void Edit::addIntents(Changes& changes) const {
  for (const auto& [number, before] : intentsBefore_) {
    const Intent* intent = state_->intents_.find(number);
    if (intent && before != *intent) changes.intents.push_back(intent);
    if (!intent && before) changes.ended.push_back(number);
  }
}

const Item* Edit::itemBefore(ItemNumber number) const {
  const auto found = before_.find(number);
  if (found == before_.end()) return state_->find(number);
  return found->second ? &*found->second : nullptr;
}

Path Edit::pathBefore(const Item& item) const {
  if (item.number() == ItemNumber::root) return Path();
  const Place& place = item.here()->place;
  return pathBefore(*itemBefore(place.folder)).child(place.name);
}

Left Edit::leftOf(const Item& item) const {
  Left left{.origin = origin_,
            .isReplaced = state_->hereAt(item.here()->place) != nullptr,
            .item = item.number(),
            .here = *item.here(),
            .path = pathBefore(item),
            .confirmed = {},
            .attributes = item.attributes()};
  for (const auto* state : {&item.there(), &item.agreed()}) {
    if (*state && (*state)->content == left.here.content) left.confirmed = *state;
  }
  return left;
}

void Edit::addLeft(Changes& changes) const {
  std::set<Content> kept;
  for (const auto& [number, before] : before_) {
    const Item* item = state_->find(number);
    if (item && item->here()) kept.insert(item->here()->content);
  }
  for (const auto& [number, before] : before_) {
    if (!before || !before->here() || before->here()->content == Content::none) continue;
    if (isOnlyEvicted(*before, state_->find(number))) continue;
    if (!kept.contains(before->here()->content)) {
      changes.left.push_back(leftOf(*before));
    }
  }
  std::sort(changes.left.begin(), changes.left.end(),
            [](const Left& a, const Left& b) { return a.item < b.item; });
}

void Edit::checkFolders(const Item& item) const {
  if (item.number() == ItemNumber::root) return;
  if (item.here()) {
    const Item* folder = state_->find(item.here()->place.folder);
    if (!folder || !folder->isFolder() || !folder->here()) {
      fatalError("an item was left in a folder that is not here");
    }
  } else if (state_->anyHereIn(item.number())) {
    fatalError("a folder was removed here that is not empty");
  }
  if (item.there()) {
    const Item* folder = state_->find(item.there()->place.folder);
    if (!folder || !folder->isFolder() || !folder->there()) {
      fatalError("an item was left in a folder that the provider has not got");
    }
  } else if (state_->anyThereIn(item.number())) {
    fatalError("a folder that is not empty was taken for absent at the provider");
  }
}

}  // namespace kestrowan::replica::model
