#include "support/MemoryJournal.h"

#include <utility>

namespace kestrowan::test {

void MemoryJournal::write(const replica::model::Changes& changes) {
  if (error_) throw *std::exchange(error_, std::nullopt);
  ++writes_;
  for (const auto* item : changes.items) items_.insert_or_assign(item->number(), *item);
  for (const auto number : changes.dropped) items_.erase(number);
  for (const auto* intent : changes.intents) intents_.insert_or_assign(intent->number, *intent);
  for (const auto number : changes.ended) intents_.erase(number);
  history_.insert(history_.end(), changes.left.begin(), changes.left.end());
}

}  // namespace kestrowan::test
