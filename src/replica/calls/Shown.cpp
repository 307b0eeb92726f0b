#include "replica/calls/Shown.h"

#include <algorithm>
#include <cerrno>

#include "platform/foundation/NSError.h"
#include "replica/model/Seen.h"

namespace kestrowan::replica::calls {

using model::FileTime;
using model::Item;
using model::ItemNumber;
using model::State;
using model::There;

namespace {

std::int64_t nanoseconds(FileTime time) {
  return time.time_since_epoch().count();
}

}  // namespace

bool isCapable(const Item& item, NSFileProviderItemCapabilities capability) {
  const There* known = model::shownState(item);
  return !known || (known->capabilities & capability) != 0;
}

bool mayWrite(const Item& item) {
  return isCapable(item, NSFileProviderItemCapability::allowsWriting);
}

Attributes shown(const State& state, const Item& item, const OpenItems& openItems) {
  Attributes result = shown(item, openItems);
  if (item.isFolder()) {
    result.links = 2 + static_cast<std::uint32_t>(state.countFoldersHereIn(item.number()));
  }
  return result;
}

Attributes shown(const Item& item, const OpenItems& openItems) {
  const model::Seen seen = model::seen(item);
  Attributes result;
  result.rid = static_cast<Rid>(item.number());
  result.kind = item.isFolder() ? ItemKind::folder : ItemKind::file;
  result.size = seen.size;
  result.modified = nanoseconds(seen.modified);
  const auto changed = item.attributes().changed;
  result.changed = changed ? nanoseconds(*changed) : result.modified;
  result.content = item.here() ? static_cast<ContentNumber>(item.here()->content) : 0;
  if (const auto contents = openItems.contentsOf(item.number());
      contents && contents->isWritten && contents->number == item.here()->content) {
    result.size = contents->size;
    result.modified = contents->modified;
    result.changed = std::max<std::int64_t>(result.changed, contents->changed);
  }
  result.accessed = seen.accessed ? nanoseconds(*seen.accessed) : result.modified;
  constexpr std::uint16_t kWriting = 0222;
  result.mode = seen.mode.value_or(item.isFolder() ? 0755 : 0644);
  if (!seen.mayBeWritten) result.mode &= static_cast<std::uint16_t>(~kWriting);
  return result;
}

const Item& require(const State& state, ItemNumber number) {
  const Item* item = state.find(number);
  if (!item || !item->here()) throw posixError(ESTALE);
  return *item;
}

const Item& requireFolder(const State& state, ItemNumber number) {
  const Item& item = require(state, number);
  if (!item.isFolder()) throw posixError(ENOTDIR);
  return item;
}

std::vector<ItemNumber> subtree(const State& state, ItemNumber item) {
  std::vector<ItemNumber> all{item};
  for (std::size_t at = 0; at < all.size(); ++at) {
    if (!state.item(all[at]).isFolder()) continue;
    for (const Item* child : state.hereIn(all[at])) all.push_back(child->number());
  }
  return all;
}

}  // namespace kestrowan::replica::calls
