#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>

#include "replica/model/Item.h"

namespace kestrowan::replica::model {

/// The items of a tree by their numbers. An item keeps its address while it is among them. Numbers
/// follow one another, so each page of the table has the places of neighbours. Guarded by its
/// owner.
class Items {
 public:
  /// Null when there is none of that number.
  const Item* find(ItemNumber number) const;
  Item* find(ItemNumber number);
  /// Another item of that number must not be among them.
  Item& add(Item item);
  void remove(ItemNumber number);
  std::size_t size() const { return size_; }
  /// In no order.
  void forEach(const std::function<void(const Item&)>& visit) const;

 private:
  static constexpr std::size_t kPage = 256;
  struct Page {
    std::array<std::unique_ptr<Item>, kPage> items;
    std::size_t count = 0;
  };

  /// Those that have an item.
  std::unordered_map<std::uint64_t, std::unique_ptr<Page>> pages_;
  std::size_t size_ = 0;
};

}  // namespace kestrowan::replica::model
