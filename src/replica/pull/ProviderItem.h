#pragma once

#include <cstdint>
#include <string_view>

#include "platform/fileprovider/NSFileProviderItem.h"
#include "replica/Options.h"
#include "replica/model/Item.h"

namespace kestrowan::replica::pull {

/// How the provider came to speak of an item.
enum class Source : std::uint8_t {
  look,    // a listing, or a question about the item: every version is the item's own
  answer,  // to a change or a fetch: the version may be a word of the provider's for none
};

/// What the provider says of an item, as a state in `folder`, which it knows as `identifier`. The
/// size is clamped, a date that is none is left out, and a long version is cut. An identifier that
/// follows from the place is left empty.
model::There thereOf(const NSFileProviderItem& item, model::ItemNumber folder,
                     std::string_view identifier, const Options& options, Source source);

}  // namespace kestrowan::replica::pull
