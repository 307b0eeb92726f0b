#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "replica/model/State.h"
#include "replica/plan/Names.h"
#include "replica/plan/Step.h"

namespace kestrowan::replica::plan {

/// What must happen before what:
///
///     request           waits for
///     every             the requests around it (see `Surroundings`); what they did is merged
///     create, move      the folder is there
///                       what is at the place there. A file that is to be removed is taken over
///                       by a file that comes instead, unless it waits for others itself
///     move              what of the way there moves, when a folder goes into its own inside
///     remove            what is in `after`; all that is in a folder
///
/// Where items wait for one another in a ring, the one whose place is waited for goes by a third
/// name. Where a late request of ours may destroy what moves, a file that is not on this disk is
/// fetched first, and for a folder the landing time is waited for.
///
/// Lives on the stack of one call, no longer than the state.
class Order {
 public:
  Order(const model::State& state, model::Time now, const Names& names)
      : state_(state), now_(now), names_(names) {}

  /// What the item needs, or what must be done before.
  Step next(model::ItemNumber item) const;

 private:
  enum class Why : std::uint8_t { merge, effect, after, child, folder, inside, place, take };

  /// An item that must go first.
  struct Blocker {
    model::ItemNumber item;
    Why why;
  };
  /// One that items in a ring wait for.
  struct Link {
    model::ItemNumber from;
    Blocker blocker;
  };

  Step ownStep(model::ItemNumber item) const;
  std::optional<Blocker> blockerOf(const Step& step) const;
  std::optional<Blocker> effectBlocker(const model::Item& item) const;
  std::optional<Blocker> afterBlocker(const model::Item& item, model::ItemNumber except) const;
  std::optional<Blocker> removalBlocker(const model::Item& item) const;
  std::optional<Blocker> insideBlocker(const model::Item& item, const model::Item& folder) const;
  std::optional<Blocker> placeBlocker(const model::Item& item, const model::Place& place) const;
  Step breakRing(const std::vector<Link>& ring) const;
  Step wait(model::ItemNumber item, Blocker blocker) const;
  std::optional<Step> protection(const Push& push) const;

  const model::State& state_;
  model::Time now_;
  const Names& names_;
};

}  // namespace kestrowan::replica::plan
