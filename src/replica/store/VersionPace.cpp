#include "replica/store/VersionPace.h"

#include <algorithm>

namespace kestrowan::replica {

namespace {

constexpr std::int64_t kInterval = 60'000;
/// Of the time, a copy may take one part of so many.
constexpr std::int64_t kParts = 20;
/// What is due anyhow is forgotten when so many files more are remembered.
constexpr std::size_t kSweep = 1024;

}  // namespace

bool VersionPace::isDue(const std::string& path, std::int64_t now) const {
  const auto found = next_.find(path);
  return found == next_.end() || found->second <= now;
}

void VersionPace::noteKept(const std::string& path, std::int64_t now, std::int64_t cost) {
  if (roomUntilSweep_ == 0) {
    std::erase_if(next_, [now](const auto& one) { return one.second <= now; });
    roomUntilSweep_ = std::max(next_.size(), kSweep);
  }
  if (next_.insert_or_assign(path, now + std::max(kInterval, cost * (kParts - 1))).second) {
    --roomUntilSweep_;
  }
}

}  // namespace kestrowan::replica
