#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <set>
#include <string_view>
#include <vector>

#include "replica/model/Intents.h"
#include "replica/model/Item.h"
#include "replica/model/Items.h"
#include "replica/model/Path.h"
#include "replica/model/Places.h"

namespace kestrowan::replica::model {

/// All that a replica knows: the items in their three states, and the intents. Owned by the tree;
/// read through a `View` or an `Edit`, which hold the tree's lock, and changed by an `Edit` alone.
///
/// At most one item is at a place here, and at most one there. To put an item where another is, is
/// a programming error and ends the process. The root is always there; its place has no folder.
class State {
 public:
  State();

  /// Absent when there is none of that number.
  const Item* find(ItemNumber number) const;
  /// Of a number that is known to be one's; any other ends the process.
  const Item& item(ItemNumber number) const;
  const Item& root() const { return item(ItemNumber::root); }
  std::size_t count() const { return items_.size(); }
  /// Visits every item, in no order. For the beginning alone: nothing that happens later may take
  /// as long as there are items.
  void forEach(const std::function<void(const Item&)>& visit) const { items_.forEach(visit); }
  /// How many items the calling thread has found so far by their numbers or in their folders, in
  /// all states: what a question costs, whatever the time it takes.
  static std::uint64_t lookups();

  /// What is at a place here, and there; absent when nothing is.
  const Item* hereAt(const Place& place) const;
  const Item* hereAt(ItemNumber folder, std::string_view name) const;
  const Item* thereAt(const Place& place) const;
  /// What is in a folder, in the order of the names.
  std::vector<const Item*> hereIn(ItemNumber folder) const;
  std::vector<const Item*> thereIn(ItemNumber folder) const;
  /// At most `most` of them, the first behind that name.
  std::vector<const Item*> hereIn(ItemNumber folder, std::string_view behind,
                                  std::size_t most) const;
  std::vector<const Item*> thereIn(ItemNumber folder, std::string_view behind,
                                   std::size_t most) const;
  /// Any of these; absent when the folder is empty.
  const Item* anyHereIn(ItemNumber folder) const;
  const Item* anyThereIn(ItemNumber folder) const;
  /// How many these are, and how many of them are folders.
  std::size_t countHereIn(ItemNumber folder) const { return here_.countIn(folder); }
  std::size_t countThereIn(ItemNumber folder) const { return there_.countIn(folder); }
  std::size_t countFoldersHereIn(ItemNumber folder) const { return here_.countFoldersIn(folder); }

  /// Of an item that the provider has.
  Path therePath(const Item& item) const;
  /// By which the provider knows an item that it has.
  NSFileProviderItemIdentifier identifier(const Item& item) const;
  /// What the provider has at a path; absent when that is not known.
  const Item* atPath(const Path& path) const;
  /// The folder that the provider has there for what is at a path; absent when none is known.
  const Item* folderOf(const Path& path) const;
  /// The path of a place there; absent when the provider has not got its folder.
  std::optional<Path> pathOf(const Place& place) const;

  /// The items of which something that the provider showed is not merged yet; those that are not in
  /// step, which are these and what is to be sent; those that others must precede.
  const std::set<ItemNumber>& unmerged() const { return unmerged_; }
  const std::set<ItemNumber>& pending() const { return pending_; }
  const std::set<ItemNumber>& following() const { return following_; }

  const Intents& intents() const { return intents_; }

 private:
  friend class Edit;
  friend class Restorer;

  Item& changeable(ItemNumber number);
  ItemNumber make(Kind kind);
  void setHere(Item& item, OptionalHere here);
  void setThere(Item& item, Shared<There> there);
  void setAgreed(Item& item, Shared<There> agreed);
  void setAfter(Item& item, std::vector<ItemNumber> after);
  void setAttributes(Item& item, Attributes attributes);
  void take(ItemNumber number);
  void put(const Item& item);
  void enter(const Item& item);
  void leavePlaces();
  void note(const Item& item);

  Items items_;
  Places here_{Places::Side::here};
  Places there_{Places::Side::there};
  std::set<ItemNumber> unmerged_;
  std::set<ItemNumber> pending_;
  std::set<ItemNumber> following_;
  Intents intents_;
  ItemNumber nextItem_{2};
  IntentNumber nextIntent_{1};
};

}  // namespace kestrowan::replica::model
