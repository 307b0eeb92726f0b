#include "replica/pull/Walk.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace kestrowan::replica::pull {

using async::Loop;
using model::ItemNumber;

namespace {

/// So many items opened one soon after another are a walk.
constexpr unsigned kOpenedUntilWalk = 3;
constexpr std::chrono::milliseconds kPause{2000};

}  // namespace

bool Walk::goesTo(ItemNumber item, bool isHere, Loop::Moment now) {
  if (opened_ == 0 || !at_ || now - *at_ > kPause) {
    // What is here begins no walk, but a walk goes on over it.
    if (isHere) return false;
    *this = Walk();
  }
  at_ = now;
  if (std::exchange(last_, item) == item) return false;
  return ++opened_ >= kOpenedUntilWalk;
}

Walk::Items Walk::next(ItemNumber item, std::size_t count, const std::function<Items()>& behind) {
  if (!std::exchange(hasLooked_, true)) {
    ahead_ = behind();
    std::reverse(ahead_.begin(), ahead_.end());
  } else if (const auto found = std::find(ahead_.rbegin(), ahead_.rend(), item);
             found != ahead_.rend()) {
    ahead_.erase(std::prev(found.base()), ahead_.end());
  }
  const auto some = static_cast<std::ptrdiff_t>(std::min(count, ahead_.size()));
  return {ahead_.rbegin(), ahead_.rbegin() + some};
}

}  // namespace kestrowan::replica::pull
