#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "replica/Fetcher.h"

namespace kestrowan::replica {

namespace {

/// So many files opened one soon after another are a walk.
constexpr unsigned kOpenedUntilWalk = 3;
constexpr std::int64_t kWalkPause = 2000;
/// Larger files are left until they are asked for.
constexpr std::int64_t kLargestAhead = 256 * 1024;
constexpr std::int64_t kMostInFlight = 12;

}  // namespace

/// Notes which files of the folder come after `from`, in the order of their names.
void Fetcher::lookAhead(const ItemPtr& folder, const Item& from) const {
  std::vector<std::pair<std::string_view, Rid>> names;
  const auto children = core_.table.children(folder->rid);
  for (const ItemPtr& child : children) {
    const bool wanted = !child->isFolder() && child->content == 0 && child->base &&
                        child->size <= kLargestAhead && child->name > from.name;
    if (wanted) names.emplace_back(child->name, child->rid);
  }
  std::sort(names.begin(), names.end(), std::greater<>());
  auto& ahead = folder->folder->walk->ahead;
  ahead.clear();
  for (const auto& entry : names) ahead.push_back(entry.second);
}

void Fetcher::walked(const ItemPtr& item) {
  std::lock_guard lock(core_.mutex);
  const ItemPtr folder = core_.table.find(item->parent);
  if (!folder || !health_.isUp()) return;
  FolderRuntime& runtime = core_.folder(folder);
  // Files that are here begin no walk, but a walk goes on over them.
  if (!runtime.walk && item->content != 0) return;
  const std::int64_t now = core_.milliseconds();
  if (!runtime.walk || now - runtime.walk->at > kWalkPause) {
    runtime.walk = std::make_unique<Walk>();
  }
  Walk& walk = *runtime.walk;
  walk.at = now;
  if (++walk.opened == kOpenedUntilWalk) lookAhead(folder, *item);
  while (!walk.ahead.empty() && inFlight_ < kMostInFlight) {
    const ItemPtr next = core_.table.find(walk.ahead.back());
    walk.ahead.pop_back();
    if (next) fetchLater(next);
  }
}

}  // namespace kestrowan::replica
