#include "replica/store/VersionPace.h"

#include <algorithm>

namespace kestrowan::replica {

namespace {

constexpr std::int64_t kInterval = 60'000;
/// Of the time, a copy may take one part of so many.
constexpr std::int64_t kParts = 20;
/// What is due anyhow is forgotten when so many files more are remembered.
constexpr std::size_t kSweep = 1024;

/// Remembers `until` for a key. `room`: how many more keys there may be before those are forgotten
/// whose time is over.
template <typename Key>
void remember(std::unordered_map<Key, std::int64_t>& times, std::size_t& room, const Key& key,
              std::int64_t now, std::int64_t until) {
  if (room == 0) {
    std::erase_if(times, [now](const auto& one) { return one.second <= now; });
    room = std::max(times.size(), kSweep);
  }
  if (times.insert_or_assign(key, until).second) --room;
}

}  // namespace

bool VersionPace::isDue(const std::string& path, std::int64_t now) const {
  const auto found = next_.find(path);
  return found == next_.end() || found->second <= now;
}

void VersionPace::noteKept(const std::string& path, std::int64_t now, std::int64_t cost) {
  remember(next_, roomUntilSweep_, path, now, now + std::max(kInterval, cost * (kParts - 1)));
}

void VersionPace::noteWritten(ContentNumber content, std::int64_t now) {
  remember(written_, writtenUntilSweep_, content, now, now + kInterval);
}

bool VersionPace::isSave(ContentNumber content, std::int64_t now) const {
  const auto found = written_.find(content);
  return found != written_.end() && now < found->second;
}

}  // namespace kestrowan::replica
