#include "replica/pull/FolderListing.h"

#include <algorithm>
#include <utility>

#include "platform/base/FreeMemory.h"
#include "replica/model/ShownName.h"
#include "replica/pull/ProviderItem.h"

namespace kestrowan::replica::pull {

using model::ItemNumber;
using model::Kind;

namespace {

/// After so many items their memory goes back to the system: that of a million at once would let
/// other threads wait.
constexpr std::size_t kGivenBackAtOnce = 50'000;

}  // namespace

FolderListing::FolderListing(std::vector<NSFileProviderItemPtr> items, ItemNumber folder,
                             const NSFileProviderItemIdentifier& identifier,
                             const Options& options) {
  entries.reserve(items.size());
  std::size_t read = 0;
  for (auto& each : items) {
    if (++read % kGivenBackAtOnce == 0) giveBackFreeMemory();
    const auto item = std::exchange(each, nullptr);
    const bool isProper =
        item && item->parentItemIdentifier() == identifier &&
        options.identifiers.isProper(item->itemIdentifier(), identifier, item->filename());
    if (!isProper) {
      ++refused;
      continue;
    }
    const auto type = item->contentType();
    Entry entry{type && *type == UTType::folder() ? Kind::folder : Kind::file,
                thereOf(*item, folder, identifier, options, Source::look)};
    if (entry.kind == Kind::folder) {
      entry.there.size = 0;
      entry.there.version = {};
    }
    entries.push_back(std::move(entry));
  }
  order();
}

/// Of two entries of one name the first stays.
void FolderListing::order() {
  const auto isBefore = [](const Entry& a, const Entry& b) { return a.name() < b.name(); };
  if (!std::is_sorted(entries.begin(), entries.end(), isBefore)) {
    std::stable_sort(entries.begin(), entries.end(), isBefore);
  }
  const auto isDouble = [](const Entry& a, const Entry& b) { return a.name() == b.name(); };
  const auto end = std::unique(entries.begin(), entries.end(), isDouble);
  refused += static_cast<std::size_t>(entries.end() - end);
  entries.erase(end, entries.end());
}

const FolderListing::Entry* FolderListing::find(std::string_view name) const {
  const auto found = std::lower_bound(
      entries.begin(), entries.end(), name,
      [](const Entry& entry, std::string_view other) { return entry.name() < other; });
  return found != entries.end() && found->name() == name ? &*found : nullptr;
}

void FolderListing::rename(const std::map<std::string, std::string, std::less<>>& names) {
  for (Entry& entry : entries) {
    const auto name = names.find(std::string_view(entry.name()));
    if (name != names.end()) model::giveName(entry.there, name->second);
  }
  order();
}

}  // namespace kestrowan::replica::pull
