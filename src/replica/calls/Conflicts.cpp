#include "replica/calls/Conflicts.h"

#include <cerrno>
#include <utility>

#include "replica/Log.h"
#include "replica/calls/Shown.h"
#include "replica/model/Edit.h"
#include "replica/model/View.h"

namespace kestrowan::replica::calls {

using model::ConflictNumber;
using model::Edit;
using model::Item;
using model::ItemNumber;
using model::View;

Conflicts::Sides Conflicts::requireSides(ItemNumber side, KeptVersion kept) const {
  const View view(rooms_.tree);
  const ConflictNumber conflict = require(*view, side).attributes().conflict;
  if (conflict == ConflictNumber::none) throw posixError(EINVAL);
  const Item& copy = require(*view, rooms_.tally.copyOf(conflict));
  // The side that shows the provider's version has the number of the conflict.
  const Item* theirs = view->find(ItemNumber{static_cast<std::uint64_t>(conflict)});
  const bool isThere = theirs && theirs->here() && theirs->attributes().conflict == conflict;
  Sides sides{copy.number(), copy.here()->place, std::nullopt, shownPath(*view, copy)};
  if (isThere) {
    sides.theirPlace = theirs->here()->place;
    sides.path = shownPath(*view, *theirs);
  } else if (kept == KeptVersion::theirs) {
    throw posixError(ENOENT);
  }
  return sides;
}

Task<std::string> Conflicts::resolve(ItemNumber side, KeptVersion kept) {
  const Sides sides = requireSides(side, kept);
  if (kept == KeptVersion::theirs) {
    auto removed = names_.removeFile(sides.copyPlace.folder, sides.copyPlace.name);
    co_await std::move(removed);
  } else if (kept == KeptVersion::mine && sides.theirPlace) {
    auto renamed = names_.rename({sides.copyPlace, *sides.theirPlace, true});
    co_await std::move(renamed);
  } else {
    Edit edit(rooms_.tree, model::Origin::program);
    names_.endConflict(edit, sides.copy);
    edit.commit();
  }
  co_return sides.path;
}

}  // namespace kestrowan::replica::calls
