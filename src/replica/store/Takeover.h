#pragma once

#include <chrono>
#include <optional>
#include <vector>

#include "replica/Records.h"
#include "replica/model/Intent.h"
#include "replica/model/KeptItem.h"

namespace kestrowan::replica::store {

/// For how long a request without an answer may still land.
inline constexpr std::chrono::minutes kTakenLandingTime{10};

/// What a record says nothing of by itself.
struct Surroundings {
  /// The paths at the provider of the place of its base, and of that where the request without an
  /// answer was to put it; absent when the provider has not got the folder.
  std::optional<model::Path> base;
  std::optional<model::Path> sent;
  /// The base's identifier is its folder's, "/" and its name.
  bool isIdentifierDerived = false;
  model::Time now;
};

/// A record of two states as what it is in three.
struct TakenOver {
  model::KeptItem item;
  /// Numbers are given later.
  std::vector<model::Intent> intents;
  /// Contents that no item has any more, and that may be nowhere else; `none` when there are none.
  model::Content orphan = model::Content::none;
};

/// Pure: it depends on what it is given alone. Of what the record cannot tell, the safe side is
/// taken:
///
///     contents changed       the bytes of the base are not on this disk: the agreed state and that
///                            of the provider have its version, and no contents
///     sent, never confirmed  the record of an item that the provider may have: an intent that may
///                            land for the whole landing time from now on, and was not looked for
///     sent, of a known item  one intent for each step that the request may have had: the move,
///                            then the contents; after a removal here, of that as well
///     removed, contents      nothing of the tree has them: they are an orphan
TakenOver takenOver(const ItemRecord& record, const Surroundings& surroundings);
/// False for a record of what is nowhere: removed before anything of it was sent.
bool isAnywhere(const ItemRecord& record);

}  // namespace kestrowan::replica::store
