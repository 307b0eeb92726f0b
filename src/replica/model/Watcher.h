#pragma once

#include <vector>

#include "replica/model/Item.h"
#include "replica/model/Journal.h"

namespace kestrowan::replica::model {

/// What one edit did to one item. The pointers are good during the call that gives it.
struct ItemChange {
  /// As it was; null for a new one.
  const Item* before = nullptr;
  /// As it is; null for one that is no more.
  const Item* now = nullptr;
  /// Both agreed on the same contents, though their versions may differ.
  bool hasSameAgreed = false;

  const Item& any() const { return now ? *now : *before; }
  /// It is at another place here, it came, or it is gone.
  bool isElsewhereHere() const;
  /// Programs see other bytes of a file that was here and still is.
  bool hasOtherContents() const;
  /// Programs may see other attributes of an item that was here and still is.
  bool hasOtherAttributes() const;
};

/// Learns what edits change: for what follows from a change, such as notices for the kernel,
/// answers for waiters, and counters.
class Watcher {
 public:
  virtual ~Watcher() = default;

  /// An edit was written: its changes in the order of the numbers. Called under the tree's lock, in
  /// the order of the edits, so it only takes note: it must not call the tree, nor wait.
  virtual void changed(const std::vector<ItemChange>& changes, Origin origin) noexcept = 0;

  /// The lock of an edit that was told of is free. Called by the thread that made the edit; others
  /// may have been made meanwhile.
  virtual void released() noexcept = 0;
};

}  // namespace kestrowan::replica::model
