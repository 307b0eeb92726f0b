#include "replica/pull/Tally.h"

#include "replica/model/Seen.h"

namespace kestrowan::replica::pull {

using model::ConflictNumber;
using model::Content;
using model::Item;
using model::ItemNumber;

void Tally::Counted::set(ItemNumber item, bool isIn, std::int64_t size) {
  const auto found = bytes.find(item);
  if (found != bytes.end()) {
    sum -= found->second;
    bytes.erase(found);
  }
  if (!isIn) return;
  bytes.emplace(item, size);
  sum += size;
}

void Tally::note(const Item& item, std::int64_t size) {
  const bool hasContents = item.isFile() && item.here() && item.here()->content != Content::none;
  const bool isAgreed =
      hasContents && item.agreed() && item.agreed()->content == item.here()->content;
  const bool isToSend = hasContents && !isAgreed && !item.isInStep();
  const bool isCached = isAgreed && item.there();
  std::int64_t cached = 0;
  if (isCached)
    cached = files_.sizeOfData(static_cast<ContentNumber>(item.here()->content)).value_or(size);
  std::lock_guard lock(mutex_);
  cached_.set(item.number(), isCached, cached);
  pending_.set(item.number(), isToSend, size);
  const ConflictNumber conflict = item.attributes().conflict;
  std::erase_if(copies_, [&](const auto& copy) { return copy.second == item.number(); });
  if (model::isConflictCopy(item) && item.here()) copies_.emplace(conflict, item.number());
}

std::vector<ItemNumber> Tally::conflictCopies() const {
  std::lock_guard lock(mutex_);
  std::vector<ItemNumber> result;
  for (const auto& [conflict, item] : copies_) result.push_back(item);
  return result;
}

ItemNumber Tally::copyOf(ConflictNumber conflict) const {
  std::lock_guard lock(mutex_);
  const auto copy = copies_.lower_bound({conflict, ItemNumber::none});
  return copy != copies_.end() && copy->first == conflict ? copy->second : ItemNumber::none;
}

void Tally::noteDropped(ItemNumber item) {
  std::lock_guard lock(mutex_);
  cached_.set(item, false, 0);
  pending_.set(item, false, 0);
  std::erase_if(copies_, [&](const auto& copy) { return copy.second == item; });
}

std::vector<ItemNumber> Tally::cachedFiles() const {
  std::lock_guard lock(mutex_);
  std::vector<ItemNumber> result;
  result.reserve(cached_.bytes.size());
  for (const auto& [number, bytes] : cached_.bytes) result.push_back(number);
  return result;
}

std::int64_t Tally::cachedCount() const {
  std::lock_guard lock(mutex_);
  return static_cast<std::int64_t>(cached_.bytes.size());
}

std::int64_t Tally::cachedBytes() const {
  std::lock_guard lock(mutex_);
  return cached_.sum;
}

std::int64_t Tally::pendingBytes() const {
  std::lock_guard lock(mutex_);
  return pending_.sum;
}

}  // namespace kestrowan::replica::pull
