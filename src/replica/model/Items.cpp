#include "replica/model/Items.h"

#include <utility>

#include "platform/base/Fatal.h"

namespace kestrowan::replica::model {

namespace {

/// Numbers that follow one another lie in one table, so that not all tables grow at once.
constexpr unsigned kNeighbourBits = 10;

// There may be a million of each.
static_assert(sizeof(Item) <= 64);
static_assert(sizeof(There) <= 72);

}  // namespace

std::size_t Items::indexOf(ItemNumber number) {
  return static_cast<std::size_t>(number) >> kNeighbourBits & (kTables - 1);
}

const Item* Items::find(ItemNumber number) const {
  const std::size_t index = indexOf(number);
  if (index >= tables_.size()) return nullptr;
  const Table& table = tables_[index];
  const auto found = table.find(number);
  return found == table.end() ? nullptr : &*found;
}

Item* Items::find(ItemNumber number) {
  // Items hash by their numbers, which do not change.
  return const_cast<Item*>(std::as_const(*this).find(number));
}

Item& Items::add(Item item) {
  const ItemNumber number = item.number();
  const std::size_t index = indexOf(number);
  if (index >= tables_.size()) tables_.resize(index + 1);
  if (!tables_[index].insert(std::move(item)).second) {
    fatalError("two items have one number");
  }
  ++size_;
  return *find(number);
}

void Items::remove(ItemNumber number) {
  const std::size_t index = indexOf(number);
  if (index >= tables_.size()) return;
  Table& table = tables_[index];
  const auto found = table.find(number);
  if (found == table.end()) return;
  table.erase(found);
  --size_;
}

void Items::forEach(const std::function<void(const Item&)>& visit) const {
  for (const Table& table : tables_) {
    for (const Item& item : table) visit(item);
  }
}

}  // namespace kestrowan::replica::model
