#pragma once

#include <set>
#include <vector>

#include "unit/replica/plan/ModelProvider.h"

namespace kestrowan::test {

/// Which items and requests have to do with one another: their places are the same or one is above
/// the other, one was made for the other, or one is removed after the other. What has to do with
/// something that was added belongs to it too. Lives no longer than the state.
class Relations {
 public:
  explicit Relations(const State& state);

  void addItem(ItemNumber number);
  void addIntent(IntentNumber number);
  bool contains(ItemNumber number) const;

 private:
  struct Thing {
    ItemNumber item = ItemNumber::none;
    IntentNumber intent = IntentNumber::none;
    std::vector<Path> paths;
    std::vector<ItemNumber> after;
    bool isIn = false;
  };

  static bool areRelated(const Thing& a, const Thing& b);
  void add(std::size_t index);

  std::vector<Thing> things_;
};

}  // namespace kestrowan::test
