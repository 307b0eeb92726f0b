#pragma once

#include <cstdint>
#include <vector>

#include "replica/model/Intent.h"
#include "replica/model/Item.h"
#include "replica/model/Path.h"

namespace kestrowan::replica::model {

/// What caused an edit: a call of a program, which knows what it did; the user, who gives changes
/// up; or something else.
enum class Origin : std::uint8_t { program, user, other };

/// Bytes that were an item's and are no item's after an edit, unless the item has the same bytes
/// still, but not on this disk. Nothing written here leaves this disk
/// at once: the journal keeps them in the history.
struct Left {
  Origin origin = Origin::other;
  /// Something is at the item's place still, or again.
  bool isReplaced = false;
  ItemNumber item = ItemNumber::none;
  Here here;
  /// Where programs saw it, from the root.
  Path path;
  /// The state of the provider that has these bytes, as far as that is known; absent when the
  /// provider never confirmed them.
  Shared<There> confirmed;
  Attributes attributes;

  friend bool operator==(const Left&, const Left&) = default;
};

/// What one edit changed, in the order of the numbers. The pointers are good during the call.
struct Changes {
  /// As they are now; new ones too.
  std::vector<const Item*> items;
  std::vector<ItemNumber> dropped;
  std::vector<const Intent*> intents;
  std::vector<IntentNumber> ended;
  std::vector<Left> left;
  /// The numbers that the next item and the next intent get.
  ItemNumber nextItem = ItemNumber::none;
  IntentNumber nextIntent = IntentNumber::none;
};

/// Where edits are written. Called under the tree's lock, so it must not call the tree.
class Journal {
 public:
  virtual ~Journal() = default;

  /// Writes all of it or, when it throws, nothing. Throws an `NSError` that says why.
  virtual void write(const Changes& changes) = 0;
};

}  // namespace kestrowan::replica::model
