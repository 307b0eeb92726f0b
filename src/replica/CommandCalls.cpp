#include "replica/CommandCalls.h"

#include <utility>

#include "replica/Life.h"

namespace kestrowan::replica {

using model::ItemNumber;

CommandCalls::CommandCalls(Life& life) : life_(life) {}

ItemStatus CommandCalls::itemStatus(Rid item) const {
  return life_.commands.itemStatus(ItemNumber{item});
}

Task<Rid> CommandCalls::find(std::string path) {
  auto found = life_.folders.find(std::move(path));
  co_return static_cast<Rid>(co_await std::move(found));
}

Status CommandCalls::status(std::size_t limit) const {
  return life_.commands.status(limit);
}

Task<void> CommandCalls::waitUntilSynced(std::chrono::milliseconds limit) {
  return life_.outbox.untilSynced(limit);
}

EvictionResult CommandCalls::evict(Rid item) {
  return life_.commands.evict(ItemNumber{item});
}

PinResult CommandCalls::setPinned(Rid item, bool pinned) {
  return life_.commands.setPinned(ItemNumber{item}, pinned);
}

void CommandCalls::retry(Rid item) {
  life_.commands.retry(ItemNumber{item});
}

std::size_t CommandCalls::discard(Rid item) {
  return life_.commands.discard(ItemNumber{item});
}

Task<std::string> CommandCalls::resolve(Rid item, KeptVersion kept) {
  return life_.conflicts.resolve(ItemNumber{item}, kept);
}

std::optional<HistoryEntry> CommandCalls::historyEntry(ContentNumber entry) const {
  return life_.history.find(entry);
}

HistoryList CommandCalls::history(const HistoryFilter& filter, std::size_t most) const {
  return life_.historyCalls.list(filter, most);
}

HistoryUsage CommandCalls::clearHistory(const HistoryFilter& filter) {
  return life_.historyCalls.clear(filter);
}

Task<std::string> CommandCalls::restore(ContentNumber entry, Rid folder, std::string name,
                                        NameTaken ifTaken) {
  return life_.historyCalls.restore(entry, ItemNumber{folder}, std::move(name), ifTaken);
}

}  // namespace kestrowan::replica
