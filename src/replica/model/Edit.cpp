#include "replica/model/Edit.h"

#include <algorithm>
#include <set>
#include <utility>

#include "platform/base/Fatal.h"

namespace kestrowan::replica::model {

Edit::Edit(Tree& tree) : tree_(tree) {
  tree.mutex_.lock();
  state_ = &tree.state_;
  nextItemBefore_ = state_->nextItem_;
  nextIntentBefore_ = state_->nextIntent_;
}

Edit::~Edit() {
  if (!isCommitted_) undo();
  tree_.mutex_.unlock();
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
  state_->setAgreed(touched(number), std::move(agreed));
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
  tree_.journal_.write(changes());
  isCommitted_ = true;
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
      changes.items.push_back(item);
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

void Edit::addIntents(Changes& changes) const {
  for (const auto& [number, before] : intentsBefore_) {
    const Intent* intent = state_->intents_.find(number);
    if (intent && before != *intent) changes.intents.push_back(intent);
    if (!intent && before) changes.ended.push_back(number);
  }
}

void Edit::addLeft(Changes& changes) const {
  std::set<Content> kept;
  for (const Item* item : changes.items) {
    if (item->here()) kept.insert(item->here()->content);
  }
  for (const auto& [number, before] : before_) {
    if (!before || !before->here() || before->here()->content == Content::none) continue;
    if (!kept.contains(before->here()->content)) {
      changes.left.push_back({number, *before->here()});
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
