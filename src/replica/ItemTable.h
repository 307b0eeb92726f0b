#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "replica/Item.h"

namespace kestrowan::replica {

/// The items in memory, found by number, by the place where applications see them and by the place
/// where the provider has them. Guarded by the replica's lock.
class ItemTable {
 public:
  /// Null when there is none.
  ItemPtr find(Rid rid) const;
  /// By the place that applications see; null when there is none.
  ItemPtr child(Rid folder, std::string_view name) const;
  /// The same, or else an item whose name is canonically equivalent.
  ItemPtr similarChild(Rid folder, std::string_view name) const;
  /// By the place at the provider; null when there is none.
  ItemPtr serverChild(Rid folder, std::string_view name) const;
  std::vector<ItemPtr> children(Rid folder) const;
  std::vector<ItemPtr> serverChildren(Rid folder) const;
  bool hasChildren(Rid folder) const;
  std::size_t serverChildCount(Rid folder) const;
  std::size_t size() const { return byRid_.size(); }
  void forEach(const std::function<void(const ItemPtr&)>& use) const;

  /// Adds an item; it is found by its places unless it is removed (then only by the provider's).
  void add(const ItemPtr& item);
  /// Forgets an item and its places.
  void erase(const ItemPtr& item);
  /// Changes where applications see an item, or that they do not see it.
  void place(const ItemPtr& item, Rid parent, std::string name);
  void setRemoved(const ItemPtr& item, bool removed);
  /// Takes an item out of the tree; it is found by its number until it is erased.
  void detach(const ItemPtr& item);
  void setBase(const ItemPtr& item, std::optional<Base> base);

  /// Whether `item` is `ancestor` or lies below it, as applications see it.
  bool isWithin(const Item& item, Rid ancestor) const;
  /// The same by the provider's places.
  bool isWithinAtProvider(const Item& item, Rid ancestor) const;
  /// From the root, beginning with "/".
  std::string path(const Item& item) const;

 private:
  using Children = std::unordered_map<std::string_view, ItemPtr>;
  using Index = std::unordered_map<Rid, Children>;

  static ItemPtr find(const Index& index, Rid folder, std::string_view name);
  static void remove(Index& index, Rid folder, std::string_view name, const ItemPtr& item);
  void show(const ItemPtr& item);
  void hide(const ItemPtr& item);

  std::unordered_map<Rid, ItemPtr> byRid_;
  // The keys are views of the items' own names.
  Index visible_;
  Index atProvider_;
};

}  // namespace kestrowan::replica
