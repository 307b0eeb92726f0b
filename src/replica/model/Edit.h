#pragma once

#include <map>
#include <optional>
#include <set>
#include <unordered_map>
#include <vector>

#include "replica/model/Tree.h"

namespace kestrowan::replica::model {

/// One change of a tree, all or nothing. Holds the tree's lock, alone, while it lives. What it
/// changes is seen through it at once, and by others after `commit`. An edit that is not committed,
/// or whose journal throws, leaves everything as it was. The tree's watchers learn of a committed
/// one under the lock, and once more when the edit ends, after it has released the lock.
///
/// To change places, items are taken off (`setHere` of nothing) before they are put where another
/// one was.
class KFP_SCOPED_CAPABILITY Edit {
 public:
  explicit Edit(Tree& tree, Origin origin = Origin::other) KFP_ACQUIRE(tree.mutex_);
  ~Edit() KFP_RELEASE();
  Edit(const Edit&) = delete;
  Edit& operator=(const Edit&) = delete;

  const State& operator*() const { return *state_; }
  const State* operator->() const { return state_; }

  /// A new item without any state.
  ItemNumber make(Kind kind);
  void setHere(ItemNumber number, OptionalHere here);
  void setThere(ItemNumber number, Shared<There> there);
  void setAgreed(ItemNumber number, Shared<There> agreed);
  /// The same, where the provider has another version for the contents that were agreed on.
  void describeAgreed(ItemNumber number, Shared<There> agreed);
  /// `number` is removed after `other` has arrived, besides those that are in `after` already.
  void addAfter(ItemNumber number, ItemNumber other);
  void clearAfter(ItemNumber number);
  void setAttributes(ItemNumber number, Attributes attributes);
  /// Something of it changes although it may be the same as before.
  void noteChange(ItemNumber number);
  /// The item is no more. The root cannot be dropped.
  void drop(ItemNumber number);

  /// Notes a request; its number is set here.
  IntentNumber add(Intent intent);
  /// Replaces the intent of that number.
  void change(const Intent& intent);
  void end(IntentNumber number);

  /// Writes what was changed to the journal; nothing is to be changed afterwards. Throws what the
  /// journal throws. An item in a folder that is not where the item is, is a programming error and
  /// ends the process.
  void commit();

 private:
  Item& touched(ItemNumber number);
  void keep(IntentNumber number);
  void undo();
  void stamp(FileTime now);
  std::vector<ItemNumber> changedFolders() const;
  void stampFolders(FileTime now);
  Changes changes() const;
  void addIntents(Changes& changes) const;
  void addLeft(Changes& changes) const;
  const Item* itemBefore(ItemNumber number) const;
  Path pathBefore(const Item& item) const;
  Left leftOf(const Item& item) const;
  void checkFolders(const Item& item) const;
  std::vector<ItemChange> itemChanges() const;

  Tree& tree_;
  const Origin origin_;
  State* state_ = nullptr;
  /// What each changed item was before; absent for a new one.
  std::unordered_map<ItemNumber, std::optional<Item>> before_;
  std::set<ItemNumber> touched_;
  /// Items whose agreed state has the contents that it had before, whatever its version.
  std::set<ItemNumber> described_;
  /// The same of each changed intent.
  std::map<IntentNumber, std::optional<Intent>> intentsBefore_;
  ItemNumber nextItemBefore_ = ItemNumber::none;
  IntentNumber nextIntentBefore_ = IntentNumber::none;
  bool isCommitted_ = false;
};

}  // namespace kestrowan::replica::model
