#pragma once

#include "replica/model/Numbers.h"
#include "replica/model/Place.h"

namespace kestrowan::replica::model {

/// Where programs see an item, and which bytes they see.
struct Here {
  Place place;
  /// Of a folder always `none`. Of a file `none` while its contents were not downloaded: they are
  /// then those of the agreed state, whose content is `none` too.
  Content content = Content::none;

  friend bool operator==(const Here&, const Here&) = default;
};

}  // namespace kestrowan::replica::model
