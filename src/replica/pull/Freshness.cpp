#include "replica/pull/Freshness.h"

#include <algorithm>
#include <utility>

namespace kestrowan::replica::pull {

using model::Item;
using model::ItemNumber;
using model::Time;
using std::chrono::milliseconds;

namespace {

/// What a listing takes, so many times, passes before the next.
constexpr int kDurationFactor = 20;
/// What it proves holds for so many times as long as it takes.
constexpr int kCertainFactor = 2;

}  // namespace

bool Freshness::isKnown(const Item& folder) {
  return folder.attributes().listedAt || !folder.there();
}

milliseconds Freshness::lastDuration(ItemNumber folder) const {
  std::lock_guard lock(mutex_);
  const auto found = folders_.find(folder);
  return found == folders_.end() ? milliseconds(0) : found->second.lastDuration;
}

milliseconds Freshness::leastPause(ItemNumber folder) const {
  return lastDuration(folder) * kDurationFactor;
}

bool Freshness::isWithin(const Item& folder, milliseconds time) const {
  // What only exists here is as fresh as can be.
  if (!folder.there()) return true;
  if (!folder.attributes().listedAt) return false;
  const auto age = Time(milliseconds(loop_.wallClock())) - *folder.attributes().listedAt;
  return age >= milliseconds(0) && age <= time;
}

bool Freshness::isRecent(const Item& folder, milliseconds within) const {
  const auto pause = std::min(leastPause(folder.number()), options_.usableTime);
  return isWithin(folder, std::max(within, pause));
}

bool Freshness::isCertain(const Item& folder) const {
  const ItemNumber number = folder.number();
  const auto time = std::min(lastDuration(number) * kCertainFactor, options_.usableTime);
  return !isPartial(number) && isWithin(folder, std::max(options_.freshTime, time));
}

bool Freshness::isPartial(ItemNumber number) const {
  std::lock_guard lock(mutex_);
  const auto found = folders_.find(number);
  return found != folders_.end() && (found->second.partialListings > 0 || found->second.isUnproved);
}

bool Freshness::mayLackNames(ItemNumber number) const {
  std::lock_guard lock(mutex_);
  const auto found = folders_.find(number);
  if (found == folders_.end()) return false;
  // What was not admitted has no name that a file here can have.
  return found->second.partialListings > 0 ||
         (found->second.isUnproved && !found->second.hasRefused);
}

void Freshness::noteListing(ItemNumber folder, milliseconds duration, std::size_t refused) {
  std::lock_guard lock(mutex_);
  folders_[folder].lastDuration = duration;
  refusedEntries_ += static_cast<std::int64_t>(refused);
}

Freshness::Wholeness Freshness::noteWholeness(ItemNumber number, bool isWhole) {
  std::lock_guard lock(mutex_);
  Folder& folder = folders_[number];
  if (isWhole) return {std::exchange(folder.partialListings, 0) != 0, 0};
  ++partialListings_;
  ++folder.partialListings;
  return {folder.partialListings == 1, folder.partialListings};
}

void Freshness::noteProof(ItemNumber number, bool isUnproved, bool hasRefused) {
  std::lock_guard lock(mutex_);
  Folder& folder = folders_[number];
  folder.isUnproved = isUnproved;
  folder.hasRefused = hasRefused;
}

std::vector<ItemNumber> Freshness::partialFolders() const {
  std::lock_guard lock(mutex_);
  std::vector<ItemNumber> result;
  for (const auto& [number, folder] : folders_) {
    if (folder.partialListings > 0) result.push_back(number);
  }
  std::sort(result.begin(), result.end());
  return result;
}

std::int64_t Freshness::partialListings() const {
  std::lock_guard lock(mutex_);
  return partialListings_;
}

std::int64_t Freshness::refusedEntries() const {
  std::lock_guard lock(mutex_);
  return refusedEntries_;
}

}  // namespace kestrowan::replica::pull
