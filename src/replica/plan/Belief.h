#pragma once

#include <vector>

#include "replica/model/State.h"
#include "replica/plan/Doubts.h"
#include "replica/plan/Observing.h"

namespace kestrowan::replica::plan {

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
  Belief(const model::State& state, Doubts& doubts, model::Time began)
      : state_(state), doubts_(doubts), began_(began) {}

  /// Of `lacked`, what is absent. All of it must be in the folder. `known`: how many items of the
  /// folder the listing could have shown.
  std::vector<model::ItemNumber> absent(model::ItemNumber folder, const Listing& listing,
                                        const std::vector<model::ItemNumber>& lacked,
                                        std::size_t known);
  /// A listing shows the item.
  void seen(model::ItemNumber item) { doubts_.missing.erase(item); }

 private:
  bool isBelieved(model::ItemNumber folder, const Listing& listing,
                  const std::vector<model::ItemNumber>& lacked, std::size_t known);
  bool losesNothing(const model::Item& item) const;

  const model::State& state_;
  Doubts& doubts_;
  model::Time began_;
};

}  // namespace kestrowan::replica::plan
