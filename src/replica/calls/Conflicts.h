#pragma once

#include <optional>
#include <string>

#include "platform/base/Task.h"
#include "replica/CommandCalls.h"
#include "replica/calls/Names.h"
#include "replica/calls/Rooms.h"

namespace kestrowan::replica::calls {

/// Ends conflicts as the user says. The call is documented in `CommandCalls`. Throws `NSError`.
class Conflicts {
 public:
  Conflicts(const Rooms& rooms, Names& names) : rooms_(rooms), names_(names) {}

  Task<std::string> resolve(model::ItemNumber side, KeptVersion kept);

 private:
  struct Sides {
    /// The version that was written here, under a name of its own.
    model::ItemNumber copy = model::ItemNumber::none;
    model::Place copyPlace;
    /// Of the provider's version; absent when it is not here any more.
    std::optional<model::Place> theirPlace;
    /// Of what stays.
    std::string path;
  };
  Sides requireSides(model::ItemNumber side, KeptVersion kept) const;

  const Rooms& rooms_;
  Names& names_;
};

}  // namespace kestrowan::replica::calls
