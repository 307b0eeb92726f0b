#include "replica/Walk.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "replica/Item.h"

namespace kestrowan::replica {

namespace {

/// So many items opened one soon after another are a walk.
constexpr unsigned kOpenedUntilWalk = 3;
constexpr std::int64_t kPause = 2000;

}  // namespace

bool Walk::goesTo(const Item& item, bool isHere, std::int64_t now) {
  if (opened_ == 0 || now - at_ > kPause) {
    // What is here begins no walk, but a walk goes on over it.
    if (isHere) return false;
    *this = Walk();
  }
  at_ = now;
  if (std::exchange(last_, item.rid) == item.rid) return false;
  return ++opened_ >= kOpenedUntilWalk;
}

std::vector<Rid> Walk::next(const Item& item, std::size_t count,
                            const std::function<Items()>& children, bool (*isWanted)(const Item&)) {
  if (!std::exchange(looked_, true)) {
    std::vector<std::pair<std::string_view, Rid>> names;
    const Items all = children();
    for (const auto& child : all) {
      if (child->name > item.name && isWanted(*child)) names.emplace_back(child->name, child->rid);
    }
    std::sort(names.begin(), names.end(), std::greater<>());
    for (const auto& entry : names) ahead_.push_back(entry.second);
  } else if (const auto found = std::find(ahead_.rbegin(), ahead_.rend(), item.rid);
             found != ahead_.rend()) {
    ahead_.erase(std::prev(found.base()), ahead_.end());
  }
  const auto some = static_cast<std::ptrdiff_t>(std::min(count, ahead_.size()));
  return {ahead_.rbegin(), ahead_.rbegin() + some};
}

}  // namespace kestrowan::replica
