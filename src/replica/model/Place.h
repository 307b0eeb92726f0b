#pragma once

#include <compare>

#include "replica/model/Bytes.h"
#include "replica/model/Numbers.h"

namespace kestrowan::replica::model {

/// Where an item is: a folder, and a name in it. Names are bytes. The root's place has no folder
/// and an empty name.
struct Place {
  ItemNumber folder = ItemNumber::none;
  Bytes name;

  friend auto operator<=>(const Place&, const Place&) = default;
  friend bool operator==(const Place&, const Place&) = default;
};

}  // namespace kestrowan::replica::model
