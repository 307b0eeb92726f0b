#include "replica/Tally.h"

#include <optional>

namespace kestrowan::replica {

namespace {

/// Makes `rid` count with `bytes` in `counted`, or not at all, and `sum` the sum of all that do.
void recount(std::unordered_map<Rid, std::int64_t>& counted, std::int64_t& sum, Rid rid,
             std::optional<std::int64_t> bytes) {
  const auto found = counted.find(rid);
  if (found != counted.end()) {
    sum -= found->second;
    if (bytes) {
      found->second = *bytes;
    } else {
      counted.erase(found);
    }
  } else if (bytes) {
    counted.emplace(rid, *bytes);
  }
  sum += bytes.value_or(0);
}

}  // namespace

void Tally::note(const Item& item) {
  std::optional<std::int64_t> toSend;
  if (item.isPending()) toSend = item.contentsChanged && !item.removed ? item.size : 0;
  recount(pending_, pendingBytes_, item.rid, toSend);

  std::optional<std::int64_t> here;
  if (item.content != 0 && !item.gone && item.base && !item.contentsChanged) here = item.size;
  recount(cached_, cachedBytes_, item.rid, here);

  if (!item.gone && item.folder && item.folder->partialListings > 0) {
    partialFolders_.insert(item.rid);
  } else {
    partialFolders_.erase(item.rid);
  }
}

}  // namespace kestrowan::replica
