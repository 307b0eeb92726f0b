#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/fileprovider/NSFileProviderItem.h"
#include "replica/Options.h"
#include "replica/Outcome.h"
#include "replica/Records.h"
#include "replica/Sameness.h"

namespace kestrowan::replica {

/// Counts what the provider confirmed, and the beginnings of listings, so that a listing can be
/// told from what was learnt while it was on its way.
using Sequence = std::uint64_t;

/// What a provider's item says, as a base under `parent`; its size clamped, its version judged.
Base baseOf(const NSFileProviderItem& item, Rid parent, const Options& options, Source source);

/// One folder as the provider listed it, admitted entries only. Immutable once built.
struct Listing {
  struct Entry {
    Base base;
    ItemKind kind = ItemKind::file;
  };

  /// Admits those of `items` that are proper children of the folder: with the identifier that an
  /// item of that name in it can have, the folder as parent, and a name that none before it has.
  Listing(const std::vector<NSFileProviderItemPtr>& items, Rid folder,
          const NSFileProviderItemIdentifier& identifier, const Options& options);

  /// Whether what it lacks is not there.
  bool provesAbsence() const { return whole && refused == 0; }
  /// Null when there is none.
  const Entry* find(std::string_view name) const;
  /// The same for names in any order.
  std::uint64_t digest() const;

  std::vector<Entry> entries;
  /// How many entries were not admitted. A listing with such proves nothing about missing names.
  std::size_t refused = 0;
  /// Whether all of it came. One that did not proves nothing about missing names either.
  bool whole = true;
  Sequence begun = 0;

 private:
  std::unordered_map<std::string_view, std::size_t> byName_;
};

using ListingPtr = std::shared_ptr<const Listing>;

}  // namespace kestrowan::replica
