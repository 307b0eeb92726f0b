#pragma once

#include <cstddef>
#include <functional>
#include <unordered_map>
#include <vector>

#include "replica/model/Intent.h"
#include "replica/model/KeptItem.h"
#include "replica/model/State.h"

namespace kestrowan::replica::model {

/// Makes a state of what a journal has kept, which it does not trust: whatever cannot be part of a
/// tree is left out. Used once, by one thread.
class Restorer {
 public:
  /// Whether the provider can have that item as the state says. Asked when the items that it is in
  /// are known to lead to the root.
  using IsProper = std::function<bool(const State&, const Item&)>;

  /// An item is left out when there is one of that number, and the root unless it is one.
  void add(KeptItem kept);
  /// False when there is one of that number.
  bool add(const Intent& intent);
  /// There were more items, which are missing.
  void noteMissing() { isMissingSome_ = true; }
  /// The numbers that the next item and the next intent get at least.
  void setNext(ItemNumber item, IntentNumber intent);

  /// Leaves out every item that is, here or at the provider, in no folder that leads to the root,
  /// or is not proper; and, of two items at one place, one that is in step. When there are any, or
  /// items are missing, what is known of folders is no proof any more: they count as listed at the
  /// beginning of time.
  State finish(const IsProper& isProper);
  /// The items that were left out, one number for each.
  const std::vector<ItemNumber>& leftOut() const { return leftOut_; }

 private:
  enum class Side : std::uint8_t { here, there };
  /// Whether a folder leads to the root; `asked` while that is being found out.
  enum class Lead : std::uint8_t { asked, yes, no };
  using Leads = std::unordered_map<ItemNumber, Lead>;

  static const Place* placeOf(const Item& item, Side side);
  bool leads(ItemNumber folder, Side side, Leads& known) const;
  bool isInTree(const Item& item, Side side, Leads& known) const;
  void leaveOutWhatIsNowhere();
  void leaveOut(const std::vector<ItemNumber>& numbers);
  void putInPlaces();
  void doubtListings();
  bool isAlone(const Item& item, std::vector<ItemNumber>& displaced) const;

  State state_;
  std::vector<ItemNumber> leftOut_;
  bool isMissingSome_ = false;
};

}  // namespace kestrowan::replica::model
