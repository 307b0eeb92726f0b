#include "replica/pull/FolderListing.h"

#include "replica/pull/ProviderItem.h"

namespace kestrowan::replica::pull {

using model::ItemNumber;
using model::Kind;

FolderListing::FolderListing(const std::vector<NSFileProviderItemPtr>& items, ItemNumber folder,
                             const NSFileProviderItemIdentifier& identifier,
                             const Options& options) {
  for (const auto& item : items) {
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
    std::string name = entry.there.place.name;
    if (!entries.emplace(std::move(name), std::move(entry)).second) ++refused;
  }
}

}  // namespace kestrowan::replica::pull
