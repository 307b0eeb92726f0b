#include "replica/calls/Commands.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "replica/Log.h"
#include "replica/calls/Shown.h"
#include "replica/model/Edit.h"
#include "replica/model/View.h"

namespace kestrowan::replica::calls {

using model::Content;
using model::Edit;
using model::FailureClass;
using model::Here;
using model::Intent;
using model::Item;
using model::ItemNumber;
using model::Place;
using model::State;
using model::There;
using model::View;
using std::chrono::milliseconds;

namespace {

constexpr std::size_t kMostPartialFolders = 100;
/// So many are changed by one edit, so that other calls need not wait long for it.
constexpr std::ptrdiff_t kItemsAtOnce = 500;

bool isAsked(const State& state, const Item& item) {
  const auto& intents = state.intents().all();
  return std::any_of(intents.begin(), intents.end(), [&](const Intent& intent) {
    return intent.item == item.number() && !intent.looked;
  });
}

std::string changesOf(const State& state, const Item& item) {
  if (item.here() && !item.there()) return "create";
  if (!item.here()) return "delete";
  std::string result;
  if (item.here()->place != item.there()->place) result = "rename";
  const bool isChanged = item.isFile() && item.agreed() && item.here()->content != Content::none &&
                         item.here()->content != item.agreed()->content;
  if (isChanged) result += result.empty() ? "contents" : ", contents";
  return result.empty() && isAsked(state, item) ? "verify" : result;
}

/// Where an item is for programs, or was.
bool isWithin(const State& state, const Item& item, ItemNumber folder) {
  for (const Item* at = &item; at;) {
    if (at->number() == folder) return true;
    if (at->number() == ItemNumber::root) return false;
    at = state.find(at->here() ? at->here()->place.folder
                               : (at->there() ? at->there()->place.folder : ItemNumber::none));
  }
  return false;
}

}  // namespace

SyncState Commands::stateOf(const Item& item) const {
  if (item.attributes().localOnly) return SyncState::localOnly;
  const bool isSending = rooms_.outbox.isSending(item.number());
  if (item.isInStep()) return isSending ? SyncState::sending : SyncState::synced;
  if (isSending) return SyncState::sending;
  const auto& failure = item.attributes().failure;
  if (!failure) return SyncState::waiting;
  return failure->failureClass == FailureClass::refused ? SyncState::refused : SyncState::retrying;
}

/// The side that shows the provider's version has the number of the conflict. Null when the other
/// side of the item's is no more.
const Item* Commands::otherSide(const State& state, const Item& item) const {
  const auto conflict = item.attributes().conflict;
  ItemNumber other{static_cast<std::uint64_t>(conflict)};
  if (other == item.number()) other = rooms_.tally.copyOf(conflict);
  const Item* side = state.find(other);
  return side && side->here() ? side : nullptr;
}

ItemStatus Commands::statusOf(const State& state, const Item& item) const {
  ItemStatus status;
  status.path = shownPath(state, item);
  status.kind = item.isFolder() ? ItemKind::folder : ItemKind::file;
  status.state = stateOf(item);
  status.changes = item.isInStep() && !isAsked(state, item) ? "" : changesOf(state, item);
  if (item.there()) {
    status.identifier = state.identifier(item);
    status.version = item.there()->version.text;
  }
  if (item.here()) status.size = shown(item, rooms_.openItems).size;
  status.downloaded = item.here() && item.here()->content != Content::none;
  status.pinned = item.attributes().pinned;
  if (item.attributes().conflict != model::ConflictNumber::none) {
    const Item* other = otherSide(state, item);
    status.conflict = other ? shownPath(state, *other) : "yes";
  }
  if (const auto& failure = item.attributes().failure) {
    SyncFailure shownFailure;
    shownFailure.failureClass = static_cast<replica::FailureClass>(failure->failureClass);
    shownFailure.domain = failure->domain;
    shownFailure.code = failure->code;
    shownFailure.text = failure->text;
    using std::chrono::floor;
    using std::chrono::seconds;
    shownFailure.since = floor<seconds>(failure->since).time_since_epoch().count();
    shownFailure.next = floor<seconds>(failure->next).time_since_epoch().count();
    shownFailure.tries = failure->tries;
    status.failure = shownFailure;
  }
  return status;
}

ItemStatus Commands::itemStatus(ItemNumber number) const {
  const View view(rooms_.tree);
  return statusOf(*view, require(*view, number));
}

Status Commands::status(std::size_t limit) const {
  Status status;
  status.offline = rooms_.health.isOffline();
  status.unanswered = rooms_.health.unanswered();
  status.heldBy = rooms_.health.held();
  if (status.heldBy) status.held = status.heldBy->localizedDescription();
  status.history = rooms_.history.usage();
  status.historyLimit = rooms_.history.limit();
  status.pendingBytes = rooms_.tally.pendingBytes();
  status.cachedFiles = rooms_.tally.cachedCount();
  status.cachedBytes = rooms_.tally.cachedBytes();
  status.fetching = rooms_.downloader.inFlight();
  const auto refused = rooms_.background.refused();
  status.refusedPrograms = refused.count;
  status.lastRefusedProgram = refused.last;
  status.watchedFolders = static_cast<std::int64_t>(rooms_.refresher.watchedCount());
  status.refusedEntries = rooms_.refresher.refusedEntries();
  status.partialListings = rooms_.refresher.partialListings();
  const auto partial = rooms_.refresher.partialFolders();
  const auto conflicts = rooms_.tally.conflictCopies();
  const View view(rooms_.tree);
  status.itemCount = static_cast<std::int64_t>(view->count());
  std::vector<std::pair<std::uint64_t, ItemNumber>> pending;
  for (const ItemNumber number : view->pending()) {
    pending.emplace_back(rooms_.outbox.order(number), number);
  }
  for (const Intent& intent : view->intents().all()) {
    const Item* item = view->find(intent.item);
    if (item && item->isInStep() && !intent.looked) pending.emplace_back(0, intent.item);
  }
  std::sort(pending.begin(), pending.end());
  pending.erase(std::unique(pending.begin(), pending.end()), pending.end());
  status.pendingCount = static_cast<std::int64_t>(pending.size());
  for (const auto& [order, number] : pending) {
    if (status.pending.size() == limit) break;
    status.pending.push_back(statusOf(*view, view->item(number)));
  }
  for (const ItemNumber number : conflicts) {
    const Item* copy = view->find(number);
    if (!copy || !copy->here()) continue;
    const Item* theirs = otherSide(*view, *copy);
    status.conflicts.push_back(
        {shownPath(*view, *copy), theirs ? shownPath(*view, *theirs) : std::string()});
  }
  for (const ItemNumber number : partial) {
    if (status.partialFolders.size() == kMostPartialFolders) break;
    const Item* folder = view->find(number);
    if (folder && folder->here()) status.partialFolders.push_back(shownPath(*view, *folder));
  }
  return status;
}

EvictionResult Commands::evict(ItemNumber number) {
  EvictionResult result;
  std::vector<ItemNumber> items;
  {
    const View view(rooms_.tree);
    require(*view, number);
    items = subtree(*view, number);
  }
  for (auto next = items.begin(); next != items.end();) {
    const auto end = next + std::min(kItemsAtOnce, items.end() - next);
    rooms_.unused.removeAtOnce(evictSome({next, end}, result));
    next = end;
  }
  return result;
}

/// Gives the contents that have no item any more.
std::vector<ContentNumber> Commands::evictSome(const std::vector<ItemNumber>& items,
                                               EvictionResult& result) {
  std::vector<ContentNumber> evicted;
  Edit edit(rooms_.tree);
  for (const ItemNumber each : items) {
    const Item* item = edit->find(each);
    if (!item || item->isFolder() || !item->here() || item->here()->content == Content::none) {
      continue;
    }
    if (rooms_.space.isEvictable(*item)) {
      ++result.evicted;
      result.bytes += shown(*item, rooms_.openItems).size;
      evicted.push_back(pull::Space::evict(edit, each));
    } else if (item->attributes().pinned) {
      ++result.pinned;
    } else if (rooms_.openItems.isOpen(each)) {
      ++result.open;
    } else {
      ++result.changed;
    }
  }
  edit.commit();
  return evicted;
}

PinResult Commands::setPinned(ItemNumber number, bool isPinned) {
  PinResult result;
  std::vector<ItemNumber> items;
  std::vector<ItemNumber> folders;
  {
    Edit edit(rooms_.tree);
    require(*edit, number);
    items = subtree(*edit, number);
    for (const ItemNumber each : items) {
      model::Attributes attributes = edit->item(each).attributes();
      attributes.pinned = isPinned;
      edit.setAttributes(each, std::move(attributes));
      const Item& item = edit->item(each);
      if (item.isFolder()) {
        folders.push_back(each);
      } else if (item.here()) {
        ++result.files;
        if (item.here()->content == Content::none) ++result.missing;
      }
    }
    edit.commit();
  }
  if (!isPinned) return result;
  // What is in a folder is only known once it has been listed.
  for (const ItemNumber folder : folders) rooms_.refresher.lookSoon(folder);
  for (const ItemNumber each : items) rooms_.downloader.fetchSoon(each);
  return result;
}

std::vector<ItemNumber> Commands::pendingIn(const State& state, ItemNumber folder) const {
  std::vector<ItemNumber> result;
  for (const ItemNumber number : state.pending()) {
    if (isWithin(state, state.item(number), folder)) result.push_back(number);
  }
  return result;
}

void Commands::retry(ItemNumber number) {
  std::vector<ItemNumber> items;
  {
    Edit edit(rooms_.tree);
    items = pendingIn(*edit, number);
    for (const ItemNumber each : items) {
      model::Attributes attributes = edit->item(each).attributes();
      attributes.failure.reset();
      edit.setAttributes(each, std::move(attributes));
    }
    edit.commit();
  }
  for (const ItemNumber each : items) {
    if (!rooms_.outbox.isSending(each)) rooms_.outbox.noteChange(each, milliseconds(0));
  }
}

/// Gives up what was changed here of one item. False when something in it keeps it here.
bool Commands::discardOne(Edit& edit, ItemNumber number) const {
  const Item& item = edit->item(number);
  if (!item.there() && !item.agreed()) {
    if (edit->anyHereIn(number)) return false;
    edit.drop(number);
    return true;
  }
  if (!item.there()) return false;
  const There there = *item.there();
  const Item* at = edit->hereAt(there.place);
  const Item* folder = edit->find(there.place.folder);
  const bool isFree = folder && folder->here() && (!at || at == &item);
  Place place = item.here() ? item.here()->place : there.place;
  if (isFree) place = there.place;
  if (!item.here() && !isFree) return false;
  Content content = there.content;
  if (content != Content::none && item.here() && item.here()->content != content) {
    content = Content::none;
  }
  There agreed = there;
  agreed.content = content;
  edit.setHere(number, Here{place, content});
  edit.setThere(number, agreed);
  edit.setAgreed(number, agreed);
  edit.clearAfter(number);
  model::Attributes attributes = item.attributes();
  attributes.failure.reset();
  attributes.size.reset();
  attributes.modified.reset();
  edit.setAttributes(number, std::move(attributes));
  return true;
}

std::size_t Commands::discard(ItemNumber number) {
  std::vector<ItemNumber> discarded;
  std::vector<ItemNumber> left;
  {
    Edit edit(rooms_.tree, model::Origin::user);
    require(*edit, number);
    auto pending = pendingIn(*edit, number);
    // What lies deepest goes first, so that folders made here are empty when it is their turn.
    std::sort(pending.begin(), pending.end(), [&](ItemNumber a, ItemNumber b) {
      return shownPath(*edit, edit->item(a)).size() > shownPath(*edit, edit->item(b)).size();
    });
    for (const ItemNumber each : pending) {
      if (rooms_.outbox.isSending(each)) continue;
      (discardOne(edit, each) ? discarded : left).push_back(each);
    }
    edit.commit();
  }
  for (const ItemNumber each : discarded) rooms_.outbox.note(each);
  // What still differs, because its name was not free in time, is sent after all.
  for (const ItemNumber each : left) rooms_.outbox.noteChange(each, milliseconds(0));
  return discarded.size() + left.size();
}

}  // namespace kestrowan::replica::calls
