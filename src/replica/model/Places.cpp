#include "replica/model/Places.h"

#include <algorithm>
#include <utility>

#include "platform/base/Fatal.h"

namespace kestrowan::replica::model {

namespace {

/// The most items of a part.
constexpr std::size_t kPart = 512;

}  // namespace

const Place& Places::placeOf(const Item& item) const {
  return side_ == Side::here ? item.here()->place : item.there()->place;
}

Places::Spot Places::spotOf(const Inside& inside, std::string_view name) const {
  const auto isBefore = [this](const Item* item, std::string_view other) {
    return placeOf(*item).name < other;
  };
  const auto& parts = inside.parts;
  const auto part = std::lower_bound(
      parts.begin(), parts.end(), name,
      [&](const Part& each, std::string_view other) { return isBefore(each.back(), other); });
  if (part == parts.end()) return {parts.size(), 0};
  const auto item = std::lower_bound(part->begin(), part->end(), name, isBefore);
  return {static_cast<std::size_t>(part - parts.begin()),
          static_cast<std::size_t>(item - part->begin())};
}

bool Places::isAt(const Inside& inside, Spot spot, std::string_view name) const {
  return spot.part < inside.parts.size() &&
         placeOf(*inside.parts[spot.part][spot.index]).name == name;
}

const Item* Places::at(ItemNumber folder, std::string_view name) const {
  const auto found = folders_.find(folder);
  if (found == folders_.end()) return nullptr;
  const Spot spot = spotOf(found->second, name);
  return isAt(found->second, spot, name) ? found->second.parts[spot.part][spot.index] : nullptr;
}

std::vector<const Item*> Places::in(ItemNumber folder) const {
  std::vector<const Item*> result;
  const auto found = folders_.find(folder);
  if (found == folders_.end()) return result;
  result.reserve(found->second.count);
  for (const Part& part : found->second.parts)
    result.insert(result.end(), part.begin(), part.end());
  return result;
}

std::vector<const Item*> Places::in(ItemNumber folder, std::string_view behind,
                                    std::size_t most) const {
  std::vector<const Item*> result;
  const auto found = folders_.find(folder);
  if (found == folders_.end()) return result;
  Spot spot = spotOf(found->second, behind);
  if (isAt(found->second, spot, behind)) ++spot.index;
  const auto& parts = found->second.parts;
  for (; spot.part < parts.size() && result.size() < most; spot = {spot.part + 1, 0}) {
    const Part& part = parts[spot.part];
    const std::size_t end = std::min(part.size(), spot.index + (most - result.size()));
    for (; spot.index < end; ++spot.index) result.push_back(part[spot.index]);
  }
  return result;
}

const Item* Places::anyIn(ItemNumber folder) const {
  const auto found = folders_.find(folder);
  return found == folders_.end() ? nullptr : found->second.parts.front().front();
}

std::size_t Places::countIn(ItemNumber folder) const {
  const auto found = folders_.find(folder);
  return found == folders_.end() ? 0 : found->second.count;
}

std::size_t Places::countFoldersIn(ItemNumber folder) const {
  const auto found = folders_.find(folder);
  return found == folders_.end() ? 0 : found->second.folders;
}

void Places::insert(Inside& inside, Spot spot, const Item& item) {
  auto& parts = inside.parts;
  const bool isLast = spot.part == parts.size();
  if (isLast && (parts.empty() || parts.back().size() == kPart)) {
    // Names often come in their order: full parts are left behind then.
    parts.push_back({&item});
    return;
  }
  if (isLast) spot = {parts.size() - 1, parts.back().size()};
  if (parts[spot.part].size() == kPart) {
    Part& full = parts[spot.part];
    Part rest(full.begin() + kPart / 2, full.end());
    full.resize(kPart / 2);
    full.shrink_to_fit();
    parts.insert(parts.begin() + static_cast<std::ptrdiff_t>(spot.part) + 1, std::move(rest));
    if (spot.index > kPart / 2) spot = {spot.part + 1, spot.index - kPart / 2};
  }
  Part& part = parts[spot.part];
  part.insert(part.begin() + static_cast<std::ptrdiff_t>(spot.index), &item);
}

bool Places::add(const Item& item) {
  const Place& place = placeOf(item);
  Inside& inside = folders_[place.folder];
  const Spot spot = spotOf(inside, place.name);
  if (isAt(inside, spot, place.name)) return false;
  insert(inside, spot, item);
  ++inside.count;
  if (item.isFolder()) ++inside.folders;
  return true;
}

void Places::remove(const Item& item) {
  const Place& place = placeOf(item);
  const auto found = folders_.find(place.folder);
  if (found == folders_.end()) fatalError("an item is not at its place");
  Inside& inside = found->second;
  const Spot spot = spotOf(inside, place.name);
  const bool isThere =
      isAt(inside, spot, place.name) && inside.parts[spot.part][spot.index] == &item;
  if (!isThere) fatalError("an item is not at its place");
  Part& part = inside.parts[spot.part];
  part.erase(part.begin() + static_cast<std::ptrdiff_t>(spot.index));
  if (part.empty())
    inside.parts.erase(inside.parts.begin() + static_cast<std::ptrdiff_t>(spot.part));
  --inside.count;
  if (item.isFolder()) --inside.folders;
  if (inside.count == 0) folders_.erase(found);
}

}  // namespace kestrowan::replica::model
