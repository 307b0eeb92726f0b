#include "replica/calls/Shown.h"

#include <cerrno>

#include "platform/foundation/NSError.h"
#include "replica/pull/ProviderItem.h"

namespace kestrowan::replica::calls {

using model::Content;
using model::FileTime;
using model::Item;
using model::ItemNumber;
using model::State;
using model::There;

namespace {

/// What the provider says of the bytes that programs see; null when it has none of them.
const There* base(const Item& item) {
  if (item.agreed()) return &*item.agreed();
  return item.there() ? &*item.there() : nullptr;
}

std::int64_t nanoseconds(FileTime time) {
  return time.time_since_epoch().count();
}

}  // namespace

bool isCapable(const Item& item, NSFileProviderItemCapabilities capability) {
  const There* known = base(item);
  return !known || (known->capabilities & capability) != 0;
}

bool mayWrite(const Item& item) {
  return isCapable(item, NSFileProviderItemCapability::allowsWriting);
}

Attributes shown(const Item& item, const OpenItems& openItems) {
  const model::Attributes& kept = item.attributes();
  const There* known = base(item);
  Attributes result;
  result.rid = static_cast<Rid>(item.number());
  result.kind = item.isFolder() ? ItemKind::folder : ItemKind::file;
  if (item.isFile()) result.size = kept.size.value_or(known ? known->size : 0);
  FileTime modified;
  if (kept.modified) {
    modified = *kept.modified;
  } else if (known) {
    modified = pull::modifiedOf(*known);
  }
  result.modified = nanoseconds(modified);
  result.content = item.here() ? static_cast<ContentNumber>(item.here()->content) : 0;
  if (item.isFile()) {
    const auto contents = openItems.contentsOf(item.number());
    if (contents && contents->isWritten) {
      result.size = contents->size;
      result.modified = contents->modified;
    }
  }
  result.accessed = kept.accessed ? nanoseconds(*kept.accessed) : result.modified;
  result.changed = kept.changed ? nanoseconds(*kept.changed) : result.modified;
  constexpr std::uint16_t kWriting = 0222;
  result.mode = kept.mode.value_or(item.isFolder() ? 0755 : 0644);
  if (!mayWrite(item)) result.mode &= static_cast<std::uint16_t>(~kWriting);
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
