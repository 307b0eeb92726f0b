#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/fileprovider/NSFileProviderItem.h"
#include "replica/Options.h"
#include "replica/model/Item.h"

namespace kestrowan::replica::pull {

/// One folder as the provider listed it, admitted entries only. There may be a million, so they lie
/// in one piece. Immutable once built.
struct FolderListing {
  struct Entry {
    model::Kind kind = model::Kind::file;
    model::There there;

    const model::Bytes& name() const { return there.place.name; }
  };

  /// Admits those of `items` that are proper children of the folder: with the identifier that an
  /// item of that name in it can have, the folder as parent, and a name that none before it has.
  /// Lets go of each item once it has been read.
  FolderListing(std::vector<NSFileProviderItemPtr> items, model::ItemNumber folder,
                const NSFileProviderItemIdentifier& identifier, const Options& options);

  /// Null when there is none of that name.
  const Entry* find(std::string_view name) const;
  /// Gives entries other names, none of which another entry has: by those that were listed.
  void rename(const std::map<std::string, std::string, std::less<>>& names);

  /// Whether what it lacks is not there.
  bool provesAbsence() const { return isWhole && refused == 0; }

  /// In the order of their names.
  std::vector<Entry> entries;
  /// How many entries were not admitted. A listing with such proves nothing about missing names.
  std::size_t refused = 0;
  /// Whether all of it came. One that did not proves nothing about missing names either.
  bool isWhole = true;

 private:
  void order();
};

}  // namespace kestrowan::replica::pull
