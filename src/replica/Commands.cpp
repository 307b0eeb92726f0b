#include <algorithm>
#include <cerrno>
#include <utility>

#include "replica/Implementation.h"

namespace kestrowan::replica {

namespace {

constexpr std::size_t kMostPartialFolders = 100;

SyncState stateOf(const Item& item) {
  if (item.localOnly) return SyncState::localOnly;
  if (!item.isPending()) return SyncState::synced;
  if (item.isSending()) return SyncState::sending;
  if (!item.failure) return SyncState::waiting;
  return item.failure->failureClass == FailureClass::refused ? SyncState::refused
                                                             : SyncState::retrying;
}

std::string changesOf(const Item& item) {
  if (item.mustCreate()) return "create";
  if (item.mustRemove() || item.mustSettle()) return "delete";
  std::string result;
  if (item.mustMove()) result = "rename";
  if (item.mustSendContents()) result += result.empty() ? "contents" : ", contents";
  return result.empty() && item.sent ? "verify" : result;
}

}  // namespace

ItemStatus Replica::Implementation::itemStatus(const Item& item) const {
  ItemStatus status;
  status.path = core.table.path(item);
  status.kind = item.kind;
  status.state = stateOf(item);
  status.changes = changesOf(item);
  if (item.base) {
    status.identifier = item.base->identifier;
    status.version = item.base->version;
  }
  status.size = item.size;
  status.downloaded = item.content != 0;
  status.pinned = item.pinned;
  status.failure = item.failure;
  return status;
}

/// The items that are not synced, at most `limit` of them, in the order of their changes.
std::vector<ItemStatus> Replica::Implementation::pendingItems(std::size_t limit) const {
  std::vector<std::pair<std::uint64_t, ItemPtr>> found;
  if (limit == 0) return {};
  found.reserve(core.tally.pending().size());
  for (const auto& [rid, bytes] : core.tally.pending()) {
    if (auto item = core.table.find(rid)) {
      const std::uint64_t order = item->sync ? item->sync->order : 0;
      found.emplace_back(order, std::move(item));
    }
  }
  const auto end = found.begin() + static_cast<std::ptrdiff_t>(std::min(limit, found.size()));
  std::partial_sort(found.begin(), end, found.end());
  std::vector<ItemStatus> items;
  for (auto at = found.begin(); at != end; ++at) items.push_back(itemStatus(*at->second));
  return items;
}

Cost Replica::Implementation::cost() const {
  std::lock_guard lock(core.mutex);
  return {.visitsOfAllItems = core.table.visits()};
}

Status Replica::Implementation::status(std::size_t limit) const {
  Status status;
  std::lock_guard lock(core.mutex);
  status.history = core.departures.history().usage();
  status.historyLimit = core.departures.history().limit();
  status.offline = health.isOffline();
  status.unanswered = health.unanswered();
  status.held = health.held();
  status.itemCount = static_cast<std::int64_t>(core.table.sizeOfTree());
  status.pendingCount = static_cast<std::int64_t>(core.tally.pending().size());
  status.pendingBytes = core.tally.pendingBytes();
  status.pending = pendingItems(limit);
  const auto cached = core.tally.cached();
  status.cachedFiles = cached.files;
  status.cachedBytes = cached.bytes;
  status.fetching = fetcher.inFlight();
  status.conflicts = core.conflicts;
  status.refusedEntries = core.refusedEntries;
  status.partialListings = core.partialListings;
  for (const Rid rid : core.tally.partialFolders()) {
    if (status.partialFolders.size() == kMostPartialFolders) break;
    if (const auto folder = core.table.find(rid)) {
      status.partialFolders.push_back(core.table.path(*folder));
    }
  }
  return status;
}

void Replica::Implementation::find(std::string path, Completion<Rid> completion) {
  struct Step {
    static void go(Implementation* self, Rid at, std::string rest, Completion<Rid> completion) {
      rest.erase(0, rest.find_first_not_of('/'));
      if (rest.empty()) {
        completion(at);
        return;
      }
      const std::size_t end = std::min(rest.find('/'), rest.size());
      const std::string name = rest.substr(0, end);
      try {
        self->lookUp(at, name,
                     [self, rest = rest.substr(end), completion](const Outcome<Attributes>& found) {
                       if (!found.succeeded()) {
                         completion(found.error());
                       } else {
                         go(self, found.value().rid, rest, completion);
                       }
                     });
      } catch (const NSError& error) {
        completion(error);
      }
    }
  };
  Step::go(this, kRootRid, std::move(path), std::move(completion));
}

EvictionResult Replica::Implementation::evict(Rid rid) {
  EvictionResult result;
  std::lock_guard lock(core.mutex);
  for (const ItemPtr& item : subtree(core.require(rid))) {
    if (item->isFolder() || item->content == 0) continue;
    if (Fetcher::isEvictable(*item)) {
      ++result.evicted;
      result.bytes += item->size;
      fetcher.evict(item);
    } else if (item->pinned) {
      ++result.pinned;
    } else if (item->handles > 0) {
      ++result.open;
    } else {
      ++result.changed;
    }
  }
  return result;
}

void Replica::Implementation::setPinned(Rid rid, bool pinned) {
  std::lock_guard lock(core.mutex);
  const auto items = subtree(core.require(rid));
  {
    Rows::Batch batch(core.rows);
    for (const ItemPtr& item : items) {
      item->pinned = pinned;
      core.save(item);
    }
  }
  for (const ItemPtr& item : items) {
    if (!pinned) break;
    if (item->isFolder()) {
      // What is in it is only known once it has been listed.
      if (item->base) lister.look(item);
    } else {
      fetcher.fetchLater(item);
    }
  }
  core.rows.requireWritten();
}

void Replica::Implementation::retry(Rid rid) {
  {
    std::lock_guard lock(core.mutex);
    core.table.forEach([&](const ItemPtr& item) {
      if (!item->isPending() || item->isSending()) return;
      const ItemPtr within = core.table.find(rid);
      if (within && core.table.isWithin(*item, rid)) sender.changed(item, {});
    });
  }
  core.loop.post([this] { sender.pump(); });
}

void Replica::Implementation::discardOne(const ItemPtr& item) {
  sender.withdraw(item);
  item->failure.reset();
  core.forgetSent(item);
  // What stays here is nothing that was to be sent.
  if (item->localOnly) {
    core.save(item);
    return;
  }
  if (!item->base) {
    if (item->isFolder() && core.table.hasChildren(item->rid)) return;
    const Rid folder = item->parent;
    const std::string name = item->name;
    core.dropItem(item, HistoryReason::discarded);
    core.showFolderChange(folder);
    core.entryChanged(folder, name);
    return;
  }
  const Base base = *item->base;
  const ItemPtr here = core.table.child(base.parent, base.name);
  if (item->mustMove() && (!here || here == item)) {
    core.moveInView(item, base.parent, base.name);
  }
  if (item->removed && (!here || here == item)) {
    core.table.setRemoved(item, false);
    core.showFolderChange(base.parent);
    core.entryChanged(base.parent, base.name);
  }
  if (item->contentsChanged) {
    core.departures.leave(item, HistoryReason::discarded);
    item->contents.reset();
    item->size = base.size;
    item->modified = modifiedOf(base);
  }
  core.stamp(*item);
  core.save(item);
  core.itemChanged(item->rid, true);
}

std::size_t Replica::Implementation::discard(Rid rid) {
  std::lock_guard lock(core.mutex);
  core.require(rid);
  std::vector<ItemPtr> pending;
  core.table.forEach([&](const ItemPtr& item) {
    if (item->isPending() && !item->isSending() && core.table.isWithin(*item, rid)) {
      pending.push_back(item);
    }
  });
  // What lies deepest goes first, so that folders made here are empty when it is their turn.
  std::sort(pending.begin(), pending.end(), [this](const ItemPtr& a, const ItemPtr& b) {
    return core.table.path(*a).size() > core.table.path(*b).size();
  });
  for (const ItemPtr& item : pending) discardOne(item);
  // What still differs, because its name was not free in time, is sent after all.
  for (const ItemPtr& item : pending) {
    if (item->isPending()) sender.changed(item, {});
  }
  core.loop.post([this] { sender.pump(); });
  core.rows.requireWritten();
  return pending.size();
}

}  // namespace kestrowan::replica
