#include "replica/model/Items.h"

#include <utility>

#include "platform/base/Fatal.h"

namespace kestrowan::replica::model {

namespace {

// There may be a million of each.
static_assert(sizeof(Item) <= 56);
static_assert(sizeof(There) <= 64);

}  // namespace

const Item* Items::find(ItemNumber number) const {
  const auto value = static_cast<std::uint64_t>(number);
  const auto page = pages_.find(value / kPage);
  return page == pages_.end() ? nullptr : page->second->items[value % kPage].get();
}

Item* Items::find(ItemNumber number) {
  return const_cast<Item*>(std::as_const(*this).find(number));
}

Item& Items::add(Item item) {
  const auto value = static_cast<std::uint64_t>(item.number());
  auto added = std::make_unique<Item>(std::move(item));
  auto page = pages_.find(value / kPage);
  if (page == pages_.end()) page = pages_.emplace(value / kPage, std::make_unique<Page>()).first;
  auto& place = page->second->items[value % kPage];
  if (place) fatalError("two items have one number");
  place = std::move(added);
  ++page->second->count;
  ++size_;
  return *place;
}

void Items::remove(ItemNumber number) {
  const auto value = static_cast<std::uint64_t>(number);
  const auto page = pages_.find(value / kPage);
  if (page == pages_.end()) return;
  auto& place = page->second->items[value % kPage];
  if (!place) return;
  place.reset();
  --size_;
  if (--page->second->count == 0) pages_.erase(page);
}

void Items::forEach(const std::function<void(const Item&)>& visit) const {
  for (const auto& [number, page] : pages_) {
    for (const auto& item : page->items) {
      if (item) visit(*item);
    }
  }
}

}  // namespace kestrowan::replica::model
