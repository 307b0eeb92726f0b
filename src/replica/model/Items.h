#pragma once

#include <cstddef>
#include <functional>
#include <unordered_set>
#include <vector>

#include "replica/model/Item.h"

namespace kestrowan::replica::model {

/// The items of a tree by their numbers. An item keeps its address while it is among them. Kept in
/// many small tables, so that no insertion has to move more than one of these. Guarded by its
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
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(ItemNumber number) const noexcept {
      return static_cast<std::size_t>(number);
    }
    std::size_t operator()(const Item& item) const noexcept { return (*this)(item.number()); }
  };
  struct Equal {
    using is_transparent = void;
    bool operator()(const Item& a, const Item& b) const { return a.number() == b.number(); }
    bool operator()(const Item& a, ItemNumber b) const { return a.number() == b; }
    bool operator()(ItemNumber a, const Item& b) const { return a == b.number(); }
  };
  using Table = std::unordered_set<Item, Hash, Equal>;

  static constexpr std::size_t kTables = 256;
  static std::size_t indexOf(ItemNumber number);

  /// As many as are needed so far.
  std::vector<Table> tables_;
  std::size_t size_ = 0;
};

}  // namespace kestrowan::replica::model
