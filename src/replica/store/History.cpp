#include "replica/store/History.h"

namespace kestrowan::replica {

std::unordered_set<ContentNumber> History::load(const std::unordered_set<ContentNumber>& present) {
  std::unordered_set<ContentNumber> kept;
  std::vector<ContentNumber> lost;
  store_.history().load([&](const HistoryEntry& entry) {
    if (present.contains(entry.content)) {
      kept.insert(entry.content);
      noteKept(entry);
    } else {
      lost.push_back(entry.content);
    }
  });
  ItemStore::Transaction transaction(store_);
  for (const ContentNumber content : lost) store_.forget(content);
  transaction.commit();
  return kept;
}

void History::remove(const std::vector<HistoryEntry>& entries) {
  ItemStore::Transaction transaction(store_);
  for (const auto& entry : entries) store_.forget(entry.content);
  transaction.commit();
  for (const auto& entry : entries) noteGone(entry);
}

void History::resize(ContentNumber content, std::int64_t size) {
  auto entry = find(content);
  if (!entry || entry->size == size) return;
  noteGone(*entry);
  entry->size = size;
  noteKept(*entry);
  store_.keep(*entry);
}

void History::count(const HistoryEntry& entry, std::int64_t by) {
  usage_.files += by;
  usage_.bytes += by * entry.size;
  if (entry.confirmed != Confirmed::never) return;
  usage_.unconfirmedFiles += by;
  usage_.unconfirmedBytes += by * entry.size;
}

}  // namespace kestrowan::replica
