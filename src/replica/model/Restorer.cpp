#include "replica/model/Restorer.h"

#include <algorithm>
#include <utility>

namespace kestrowan::replica::model {

namespace {

template <class Number>
Number following(Number number) {
  return Number{static_cast<std::uint64_t>(number) + 1};
}

/// Only the root has a place that is in no folder.
bool isRoot(const KeptItem& kept) {
  const auto isAtTop = [](const Place& place) { return place == Place(); };
  return kept.kind == Kind::folder && kept.here && isAtTop(kept.here->place) && kept.there &&
         isAtTop(std::as_const(kept.there)->place) && kept.agreed &&
         isAtTop(std::as_const(kept.agreed)->place);
}

}  // namespace

void Restorer::add(KeptItem kept) {
  const bool isForRoot = kept.number == ItemNumber::root;
  const bool isKnown = !isForRoot && std::as_const(state_.items_).find(kept.number);
  if (kept.number == ItemNumber::none || isKnown || (isForRoot && !isRoot(kept))) {
    leftOut_.push_back(kept.number);
    return;
  }
  Item item(kept.number, kept.kind);
  item.here_ = std::move(kept.here);
  item.there_ = std::move(kept.there);
  item.agreed_ = std::move(kept.agreed);
  item.agreed_.share(item.there_);
  if (item.here_ && item.there_) item.here_.shareName(item.there()->place.name);
  std::sort(kept.after.begin(), kept.after.end());
  kept.after.erase(std::unique(kept.after.begin(), kept.after.end()), kept.after.end());
  item.setRest({std::move(kept.after), std::move(kept.attributes)});
  state_.nextItem_ = std::max(state_.nextItem_, following(kept.number));
  if (isForRoot) state_.take(ItemNumber::root);
  state_.items_.add(std::move(item));
  if (isForRoot) state_.enter(*state_.items_.find(ItemNumber::root));
}

bool Restorer::add(const Intent& intent) {
  if (intent.number == IntentNumber::none || state_.intents_.find(intent.number)) return false;
  state_.intents_.put(intent);
  state_.nextIntent_ = std::max(state_.nextIntent_, following(intent.number));
  return true;
}

void Restorer::setNext(ItemNumber item, IntentNumber intent) {
  state_.nextItem_ = std::max(state_.nextItem_, item);
  state_.nextIntent_ = std::max(state_.nextIntent_, intent);
}

State Restorer::finish(const IsProper& isProper) {
  for (std::vector<ItemNumber> improper;; improper.clear()) {
    leaveOutWhatIsNowhere();
    state_.items_.forEach([&](const Item& item) {
      // The root that stands for one that was left out is proper.
      const bool isFine = item.number() == ItemNumber::root || isProper(state_, item);
      if (!isFine) improper.push_back(item.number());
    });
    if (improper.empty()) break;
    leaveOut(improper);
  }
  putInPlaces();
  if (isMissingSome_ || !leftOut_.empty()) doubtListings();
  return std::move(state_);
}

void Restorer::doubtListings() {
  std::vector<ItemNumber> listed;
  state_.items_.forEach([&](const Item& item) {
    if (item.attributes().listedAt) listed.push_back(item.number());
  });
  for (const ItemNumber number : listed) {
    Item& item = state_.changeable(number);
    Attributes attributes = item.attributes();
    attributes.listedAt = Time();
    state_.setAttributes(item, std::move(attributes));
  }
}

const Place* Restorer::placeOf(const Item& item, Side side) {
  if (side == Side::here) return item.here() ? &item.here()->place : nullptr;
  return item.there() ? &item.there()->place : nullptr;
}

bool Restorer::leads(ItemNumber folder, Side side, Leads& known) const {
  std::vector<ItemNumber> way;
  Lead found = Lead::no;
  for (ItemNumber next = folder;;) {
    if (next == ItemNumber::root) found = Lead::yes;
    if (next == ItemNumber::root) break;
    const auto [entry, isNew] = known.try_emplace(next, Lead::asked);
    // One that is being asked is in itself.
    if (!isNew) found = entry->second == Lead::yes ? Lead::yes : Lead::no;
    if (!isNew) break;
    way.push_back(next);
    const Item* item = state_.find(next);
    const Place* place = item && item->isFolder() ? placeOf(*item, side) : nullptr;
    if (!place) break;
    next = place->folder;
  }
  for (const ItemNumber number : way) known[number] = found;
  return found == Lead::yes;
}

bool Restorer::isInTree(const Item& item, Side side, Leads& known) const {
  const Place* place = placeOf(item, side);
  return !place || item.number() == ItemNumber::root || leads(place->folder, side, known);
}

void Restorer::leaveOutWhatIsNowhere() {
  for (std::vector<ItemNumber> nowhere;; nowhere.clear()) {
    Leads here;
    Leads there;
    state_.items_.forEach([&](const Item& item) {
      const bool isIn = isInTree(item, Side::here, here) && isInTree(item, Side::there, there);
      if (!isIn) nowhere.push_back(item.number());
    });
    if (nowhere.empty()) return;
    leaveOut(nowhere);
  }
}

void Restorer::leaveOut(const std::vector<ItemNumber>& numbers) {
  for (const ItemNumber number : numbers) {
    state_.items_.remove(number);
    leftOut_.push_back(number);
  }
}

/// Two items in one place: what is to be sent has it, or else the first.
bool Restorer::isAlone(const Item& item, std::vector<ItemNumber>& displaced) const {
  const Item* here = item.here() ? state_.hereAt(item.here()->place) : nullptr;
  const Item* there = item.there() ? state_.thereAt(item.there()->place) : nullptr;
  for (const Item* other : {here, there}) {
    if (!other) continue;
    if (item.isInStep() || !other->isInStep() || other->isFolder()) return false;
    displaced.push_back(other->number());
  }
  return true;
}

void Restorer::putInPlaces() {
  std::vector<ItemNumber> numbers;
  state_.items_.forEach([&](const Item& item) {
    if (item.number() != ItemNumber::root) numbers.push_back(item.number());
  });
  std::sort(numbers.begin(), numbers.end());
  bool isFolderLost = false;
  for (const ItemNumber number : numbers) {
    const Item* item = state_.find(number);
    std::vector<ItemNumber> displaced;
    if (isAlone(*item, displaced)) {
      for (const ItemNumber other : displaced) {
        if (!state_.find(other)) continue;
        state_.take(other);
        leftOut_.push_back(other);
      }
      state_.enter(*state_.items_.find(number));
      continue;
    }
    isFolderLost = isFolderLost || item->isFolder();
    leaveOut({number});
  }
  if (!isFolderLost) return;
  // What was in it went into the indices already.
  state_.leavePlaces();
  state_.enter(state_.root());
  leaveOutWhatIsNowhere();
  putInPlaces();
}

}  // namespace kestrowan::replica::model
