#pragma once

#include <compare>
#include <cstddef>
#include <set>
#include <utility>
#include <vector>

#include "replica/model/Intent.h"

namespace kestrowan::replica::model {

/// The requests without an answer, found by their numbers, items and paths. Owned by the state, and
/// guarded as it is. Pointers are good until the next change.
class Intents {
 public:
  /// In the order in which they were made.
  const std::vector<Intent>& all() const { return all_; }
  /// Absent when there is none of that number.
  const Intent* find(IntentNumber number) const;
  /// At least one of them is under way.
  bool isAnyUnderWay() const { return underWay_ > 0; }
  /// Those that were made for an item.
  std::vector<const Intent*> of(ItemNumber item) const;
  /// Those with a source or target that is this path, is above it or is below it; each once, in the
  /// order in which they were made.
  std::vector<const Intent*> around(const Path& path) const;
  /// The same, without those that are below.
  std::vector<const Intent*> atOrAbove(const Path& path) const;
  /// Those with a source or target right in this folder.
  std::vector<const Intent*> in(const Path& folder) const;

  /// Replaces the one of that number, if there is one.
  void put(const Intent& intent);
  /// Does nothing when there is none of that number.
  void take(IntentNumber number);

 private:
  using Numbers = std::set<IntentNumber>;

  std::vector<Intent>::iterator place(IntentNumber number);
  void addAt(const Path& path, Numbers& numbers) const;
  void addAtOrAbove(Path path, Numbers& numbers) const;
  std::vector<const Intent*> found(const Numbers& numbers) const;

  std::vector<Intent> all_;
  std::set<std::pair<Path, IntentNumber>> byPath_;
  std::set<std::pair<ItemNumber, IntentNumber>> byItem_;
  std::size_t underWay_ = 0;
};

}  // namespace kestrowan::replica::model
