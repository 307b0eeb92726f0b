#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "platform/fileprovider/NSFileProviderItem.h"
#include "replica/Options.h"
#include "replica/model/Item.h"

namespace kestrowan::replica::pull {

/// One folder as the provider listed it, admitted entries only. Immutable once built.
struct FolderListing {
  struct Entry {
    model::Kind kind = model::Kind::file;
    model::There there;
  };
  using Entries = std::map<std::string, Entry, std::less<>>;

  /// Admits those of `items` that are proper children of the folder: with the identifier that an
  /// item of that name in it can have, the folder as parent, and a name that none before it has.
  FolderListing(const std::vector<NSFileProviderItemPtr>& items, model::ItemNumber folder,
                const NSFileProviderItemIdentifier& identifier, const Options& options);

  /// Whether what it lacks is not there.
  bool provesAbsence() const { return isWhole && refused == 0; }

  Entries entries;
  /// How many entries were not admitted. A listing with such proves nothing about missing names.
  std::size_t refused = 0;
  /// Whether all of it came. One that did not proves nothing about missing names either.
  bool isWhole = true;
};

}  // namespace kestrowan::replica::pull
