#include "replica/Listing.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace kestrowan::replica {

namespace {

std::optional<std::int64_t> wholeDate(const std::optional<NSDate>& date) {
  if (!date || !std::isfinite(date->timeIntervalSince1970)) return std::nullopt;
  if (date->timeIntervalSince1970 < static_cast<double>(kFirstDate) ||
      date->timeIntervalSince1970 > static_cast<double>(kLastDate)) {
    return std::nullopt;
  }
  return static_cast<std::int64_t>(std::floor(date->timeIntervalSince1970));
}

}  // namespace

Base baseOf(const NSFileProviderItem& item, Rid parent, const Options& options, Source source) {
  Base base;
  base.identifier = item.itemIdentifier();
  base.parent = parent;
  base.name = item.filename();
  base.date = wholeDate(item.contentModificationDate());
  base.version = item.itemVersion().contentVersion;
  base.versionKnown = isVersionKnown(options, base.version, source);
  base.version = keptVersion(options, std::move(base.version));
  base.size = std::clamp<std::int64_t>(item.documentSize().value_or(0), 0, kLargestSize);
  base.capabilities = item.capabilities();
  return base;
}

Listing::Listing(const std::vector<NSFileProviderItemPtr>& items, Rid folder,
                 const NSFileProviderItemIdentifier& identifier, const Options& options) {
  entries.reserve(items.size());
  byName_.reserve(items.size());
  for (const auto& item : items) {
    const bool proper =
        item && item->parentItemIdentifier() == identifier &&
        options.identifiers.isProper(item->itemIdentifier(), identifier, item->filename());
    if (!proper) {
      ++refused;
      continue;
    }
    const auto type = item->contentType();
    entries.push_back({baseOf(*item, folder, options, Source::look),
                       type && *type == UTType::folder() ? ItemKind::folder : ItemKind::file});
    if (!byName_.emplace(entries.back().base.name, entries.size() - 1).second) {
      entries.pop_back();
      ++refused;
    }
  }
}

const Listing::Entry* Listing::find(std::string_view name) const {
  const auto found = byName_.find(name);
  return found == byName_.end() ? nullptr : &entries[found->second];
}

std::uint64_t Listing::digest() const {
  std::uint64_t sum = entries.size() + 1;
  for (const auto& entry : entries) sum += std::hash<std::string>()(entry.base.name) | 1;
  return sum;
}

}  // namespace kestrowan::replica
