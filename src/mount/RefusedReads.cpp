#include "mount/RefusedReads.h"

#include <algorithm>

namespace kestrowan::mount {

namespace {

/// Beyond that no more are refused, so that what is kept has an end.
constexpr std::size_t kMost = 256;

}  // namespace

bool RefusedReads::refuse(off_t offset, std::size_t size) {
  const off_t end = offset + static_cast<off_t>(size);
  std::lock_guard lock(mutex_);
  const bool isKnown = std::any_of(refused_.begin(), refused_.end(), [&](const auto& range) {
    return range.first < end && offset < range.second;
  });
  if (isKnown || refused_.size() >= kMost) return false;
  refused_.emplace_back(offset, end);
  return true;
}

}  // namespace kestrowan::mount
