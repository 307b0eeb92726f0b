#include "replica/plan/Merge.h"

#include <optional>

#include "replica/plan/FreePlace.h"
#include "replica/plan/Landing.h"

namespace kestrowan::replica::plan {

using model::Content;
using model::Here;
using model::Intent;
using model::Item;
using model::ItemNumber;
using model::Path;
using model::State;
using model::There;
using model::Verb;

namespace {

struct Case {
  const State& state;
  const Item& item;
  const Names& names;
  const model::OptionalHere& here;
  const model::Shared<There>& there;
  const model::Shared<There>& agreed;

  Step settle(Resolution resolution) const { return Settle{resolution, item.number(), {}, {}}; }
  bool isEndangered() const { return endangeredUntil(state, state.therePath(item)).has_value(); }
};

/// A row of the table: what follows, or nothing where the row does not fit.
using Row = std::optional<Step> (*)(const Case&);

std::optional<Step> dropWhatIsNowhere(const Case& c) {
  if (c.here || c.there) return std::nullopt;
  return c.settle(Resolution::drop);
}

std::optional<Step> recogniseOurOwn(const Case& c) {
  if (!c.item.isNewThere()) return std::nullopt;
  const Path path = c.state.therePath(c.item);
  const Verb verb = c.item.isFile() ? Verb::put : Verb::makeFolder;
  const Intent* latest = nullptr;
  for (const Intent* intent : c.state.intents().atOrAbove(path)) {
    if (intent->verb != verb || intent->target != path) continue;
    if (c.item.isFile() && c.there->content == Content::none) return Fetch{c.item.number()};
    if (intent->content == c.there->content) latest = intent;
  }
  if (!latest) return std::nullopt;
  const bool isKnown = c.here || c.agreed;
  if (latest->item == ItemNumber::none && !isKnown) return std::nullopt;
  return Settle{Resolution::own, c.item.number(), latest->item, {}};
}

/// Theirs is to be at the place of an item of ours.
Step makeRoom(const Case& c, const Item& other) {
  // It is gone there: that is decided first.
  if (!other.there() && other.agreed()) return WaitFor{other.number()};
  const bool mayBeSame = !other.there() && other.kind() == c.item.kind();
  if (mayBeSame && c.item.isFile() && c.there->content == Content::none) {
    return Fetch{c.item.number()};
  }
  if (mayBeSame && (c.item.isFolder() || other.here()->content == c.there->content)) {
    return Settle{Resolution::join, other.number(), c.item.number(), {}};
  }
  return Settle{Resolution::aside,
                other.number(),
                {},
                freePlace(c.state, other.here()->place, c.names, &Names::aside)};
}

std::optional<Step> showWhatIsNew(const Case& c) {
  if (c.here || c.agreed) return std::nullopt;
  if (c.item.isFile() && c.there->content == Content::none && c.isEndangered()) {
    return Fetch{c.item.number()};
  }
  const Item& folder = c.state.item(c.there->place.folder);
  if (!folder.here()) {
    if (folder.agreed()) return Settle{Resolution::back, folder.number(), {}, {}};
    return WaitFor{folder.number()};
  }
  const Item* other = c.state.hereAt(c.there->place);
  return other ? makeRoom(c, *other) : c.settle(Resolution::show);
}

std::optional<Step> bringBackWhatChanged(const Case& c) {
  if (c.here || !c.item.isNewThere()) return std::nullopt;
  return c.settle(Resolution::back);
}

std::optional<Step> removeThere(const Case& c) {
  if (c.here) return std::nullopt;
  return Push{Change::remove, c.item.number(), c.there->place, Content::none};
}

/// Its name or that of a folder on the way is one that stays here.
bool staysHere(const Case& c) {
  for (const Item* up = &c.item; up->number() != ItemNumber::root;) {
    if (c.names.staysHere(up->here()->place.name)) return true;
    up = &c.state.item(up->here()->place.folder);
  }
  return false;
}

std::optional<Step> keepHereAlone(const Case& c) {
  if (!c.there && !c.agreed) return std::nullopt;
  const auto& known = c.there ? c.there : c.agreed;
  if (c.here->place == known->place || !staysHere(c)) return std::nullopt;
  if (c.item.isFolder() || c.here->content != Content::none) return c.settle(Resolution::part);
  if (!c.there) return c.settle(Resolution::forget);
  if (c.item.isNewThere()) return c.settle(Resolution::pull);
  return Fetch{c.item.number()};
}

std::optional<Step> createThere(const Case& c) {
  if (c.there || c.agreed) return std::nullopt;
  if (staysHere(c)) return Nothing{};
  // Its bytes are nowhere any more.
  if (c.item.isFile() && c.here->content == Content::none) return c.settle(Resolution::forget);
  return Push{Change::create, c.item.number(), c.here->place, c.here->content};
}

std::optional<Step> followAFileThatIsGone(const Case& c) {
  if (c.there || c.item.isFolder()) return std::nullopt;
  const bool isChanged = c.here->place != c.agreed->place || c.here->content != c.agreed->content;
  const bool canBeMade = c.here->content != Content::none;
  return c.settle(isChanged && canBeMade ? Resolution::anew : Resolution::forget);
}

std::optional<Step> followAFolderThatIsGone(const Case& c) {
  if (c.there) return std::nullopt;
  if (c.here->place != c.agreed->place) return c.settle(Resolution::anew);
  const auto isUndecided = [](const Item& child) { return !child.there() && child.agreed(); };
  const Item* any = c.state.anyHereIn(c.item.number());
  if (!any) return c.settle(Resolution::forget);
  // Mostly all of it is, so that the first one tells.
  if (isUndecided(*any)) return WaitFor{any->number()};
  for (const Item* child : c.state.hereIn(c.item.number())) {
    if (isUndecided(*child)) return WaitFor{child->number()};
  }
  return c.settle(Resolution::anew);
}

std::optional<Step> mergeContents(const Case& c) {
  if (c.item.isFolder() || !c.item.isNewThere()) return std::nullopt;
  const bool isUntouched =
      c.agreed && c.here->content == c.agreed->content && !mayLand(c.state, c.item, c.there->place);
  const bool isFetched = c.there->content != Content::none;
  if (!isFetched && !isUntouched) return Fetch{c.item.number()};
  if (isFetched && c.there->content == c.here->content) return c.settle(Resolution::agree);
  if (isUntouched || c.here->content == Content::none) return c.settle(Resolution::pull);
  return Settle{Resolution::beside,
                c.item.number(),
                {},
                freePlace(c.state, c.here->place, c.names, &Names::conflict)};
}

std::optional<Step> moveThere(const Case& c) {
  if (c.here->place == c.there->place) return std::nullopt;
  return Push{Change::move, c.item.number(), c.here->place, Content::none};
}

std::optional<Step> sendContents(const Case& c) {
  if (c.item.isFolder() || c.here->content == c.agreed->content) return std::nullopt;
  if (c.here->content == Content::none) return c.settle(Resolution::pull);
  return Push{Change::contents, c.item.number(), c.there->place, c.here->content};
}

constexpr Row kRows[] = {
    dropWhatIsNowhere,
    recogniseOurOwn,
    showWhatIsNew,
    bringBackWhatChanged,
    removeThere,
    keepHereAlone,
    createThere,
    followAFileThatIsGone,
    followAFolderThatIsGone,
    mergeContents,
    moveThere,
    sendContents,
};

}  // namespace

Step merge(const State& state, const Item& item, const Names& names) {
  if (item.isInStep()) return Nothing{};
  const Case c{state, item, names, item.here(), item.there(), item.agreed()};
  for (const Row row : kRows) {
    if (auto step = row(c)) return *step;
  }
  return Nothing{};
}

}  // namespace kestrowan::replica::plan
