#include "replica/calls/Lookups.h"

#include <algorithm>

namespace kestrowan::replica::calls {

using model::ItemNumber;

void Lookups::add(ItemNumber item) {
  const auto number = static_cast<std::uint64_t>(item);
  Page& page = pages_[number / kPage];
  if (page.counts[number % kPage]++ == 0) ++page.known;
}

void Lookups::take(ItemNumber item, std::uint64_t count) {
  const auto number = static_cast<std::uint64_t>(item);
  const auto page = pages_.find(number / kPage);
  if (page == pages_.end()) return;
  std::uint64_t& left = page->second.counts[number % kPage];
  if (left == 0) return;
  left -= std::min(left, count);
  if (left == 0 && --page->second.known == 0) pages_.erase(page);
}

bool Lookups::has(ItemNumber item) const {
  const auto number = static_cast<std::uint64_t>(item);
  const auto page = pages_.find(number / kPage);
  return page != pages_.end() && page->second.counts[number % kPage] > 0;
}

}  // namespace kestrowan::replica::calls
