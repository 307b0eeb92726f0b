#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "replica/model/State.h"
#include "replica/plan/Doubts.h"
#include "replica/plan/Observing.h"

namespace kestrowan::replica::plan {

/// What a listing shows, as a number: for two that are the same it is the same.
class ListingDigest {
 public:
  /// In the order of the names.
  void add(std::string_view name, const ListedEntry& entry);
  std::uint64_t value() const { return digest_ * 31 + count_; }

 private:
  std::uint64_t digest_ = 0;
  std::uint64_t count_ = 0;
};

/// Which of what one listing lacks is absent, and which is only missing yet:
///
///     the listing                          what it lacks
///     did not come whole                   stays as it is known
///     loses more than half of ten or       stays, until a second one, `kSuspicionTime` later, is
///       more, or all of three or more        the same
///     any other                            is absent at once where nothing here is lost by it;
///                                            else when a second one, `kSecondLook` later, lacks it
///
/// Nothing is lost by a file that is not downloaded, was removed here, or has other contents here
/// than the provider had; nor by a folder that holds nothing else.
class Belief {
 public:
  /// `doubts` is changed as the listings say; it must outlive the belief. `began`: see `Shown`.
  Belief(Doubts& doubts, model::Time began) : doubts_(doubts), began_(began) {}

  /// What a listing that came whole has lost.
  struct Loss {
    model::ItemNumber folder = model::ItemNumber::none;
    /// How many items of the folder it could have shown, and how many of those that are here have
    /// no entry of their name in it.
    std::size_t known = 0;
    std::size_t lost = 0;
    bool isEmpty = false;
    /// Of what it showed (see `ListingDigest`); asked for only if it matters.
    std::function<std::uint64_t()> digest;
  };
  /// Whether the loss is not suspicious, or not any more.
  bool isBelieved(const Loss& loss);
  /// Whether an item is absent that a listing which is believed lacks. `losesNothing`: see above.
  bool isAbsent(model::ItemNumber item, bool losesNothing);
  /// Whether nothing here is lost by an item's absence.
  static bool losesNothing(const model::State& state, const model::Item& item);
  /// A listing shows the item.
  void seen(model::ItemNumber item) { doubts_.missing.erase(item); }

 private:
  Doubts& doubts_;
  model::Time began_;
};

}  // namespace kestrowan::replica::plan
