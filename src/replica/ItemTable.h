#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
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
  /// How many of the children that applications see are folders.
  std::size_t folderCount(Rid folder) const;
  std::size_t size() const { return byRid_.size(); }
  /// How many are in the tree, the root included.
  std::size_t sizeOfTree() const { return byRid_.size() - outside_; }
  void forEach(const std::function<void(const ItemPtr&)>& use) const;
  /// How often all items have been visited.
  std::int64_t visits() const { return visits_; }

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
  // The items themselves hold their names and numbers; a set of pointers costs less than a map.
  struct ByRid {
    using is_transparent = void;
    static Rid key(Rid rid) { return rid; }
    static Rid key(const ItemPtr& item) { return item->rid; }
    std::size_t operator()(const auto& one) const { return std::hash<Rid>()(key(one)); }
    bool operator()(const auto& one, const auto& other) const { return key(one) == key(other); }
  };
  template <const std::string& (*Name)(const Item&)>
  struct ByName {
    using is_transparent = void;
    static std::string_view key(std::string_view name) { return name; }
    static std::string_view key(const Item* item) { return Name(*item); }
    std::size_t operator()(const auto& one) const {
      return std::hash<std::string_view>()(key(one));
    }
    bool operator()(const auto& one, const auto& other) const { return key(one) == key(other); }
  };
  static const std::string& visibleName(const Item& item) { return item.name; }
  static const std::string& providerName(const Item& item) { return item.base->name; }
  template <const std::string& (*Name)(const Item&)>
  using Index = std::unordered_map<Rid, std::unordered_set<Item*, ByName<Name>, ByName<Name>>>;

  template <typename AnyIndex>
  ItemPtr find(const AnyIndex& index, Rid folder, std::string_view name) const;
  template <typename AnyIndex>
  std::vector<ItemPtr> all(const AnyIndex& index, Rid folder) const;
  template <typename AnyIndex>
  static bool remove(AnyIndex& index, Rid folder, std::string_view name, const ItemPtr& item);
  template <typename AnyIndex>
  static void put(AnyIndex& index, Rid folder, std::string_view name, const ItemPtr& item);
  void show(const ItemPtr& item);
  void hide(const ItemPtr& item);

  std::unordered_set<ItemPtr, ByRid, ByRid> byRid_;
  Index<visibleName> visible_;
  /// How many folders are in each; none where there are none.
  std::unordered_map<Rid, std::size_t> folders_;
  Index<providerName> atProvider_;
  /// How many were taken out of the tree and are still known.
  std::size_t outside_ = 0;
  mutable std::int64_t visits_ = 0;
};

}  // namespace kestrowan::replica
