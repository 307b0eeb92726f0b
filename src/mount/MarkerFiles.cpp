#include "mount/MarkerFiles.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

namespace kestrowan::mount {

namespace {

using replica::Attributes;
using replica::FolderSnapshot;
using replica::kRootRid;
using replica::Rid;

/// The first is heeded by tracker, the second by many others.
constexpr std::array<std::string_view, 2> kNames = {".trackerignore", ".nomedia"};

/// Beyond the numbers that items get, and still positive for programs that take them with a sign.
constexpr Rid kFirst = Rid{1} << 62;
constexpr std::uint16_t kReadOnly = 0444;

Attributes attributesOf(std::size_t index) {
  Attributes attributes;
  attributes.rid = kFirst + index;
  attributes.mode = kReadOnly;
  return attributes;
}

}  // namespace

std::optional<Attributes> MarkerFiles::find(Rid folder, std::string_view name) const {
  if (!isShown_ || folder != kRootRid) return std::nullopt;
  const auto* const found = std::find(kNames.begin(), kNames.end(), name);
  if (found == kNames.end()) return std::nullopt;
  return attributesOf(static_cast<std::size_t>(found - kNames.begin()));
}

std::optional<Attributes> MarkerFiles::attributes(Rid item) const {
  if (!isShown_ || item < kFirst || item - kFirst >= kNames.size()) return std::nullopt;
  return attributesOf(item - kFirst);
}

std::shared_ptr<const FolderSnapshot> MarkerFiles::shown(
    Rid folder, std::shared_ptr<const FolderSnapshot> snapshot) const {
  if (!isShown_ || folder != kRootRid) return snapshot;
  auto shown = std::make_shared<FolderSnapshot>(*snapshot);
  for (std::size_t index = 0; index < kNames.size(); ++index) {
    const auto name = kNames[index];
    const auto& entries = snapshot->entries;
    const bool isThere = std::any_of(entries.begin(), entries.end(),
                                     [&](const auto& entry) { return entry.name == name; });
    if (!isThere) shown->entries.push_back({name, kFirst + index, replica::ItemKind::file});
  }
  return shown;
}

}  // namespace kestrowan::mount
