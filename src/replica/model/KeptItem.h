#pragma once

#include <vector>

#include "replica/model/Item.h"

namespace kestrowan::replica::model {

/// An item as a journal keeps it: plain data.
struct KeptItem {
  ItemNumber number = ItemNumber::none;
  Kind kind = Kind::file;
  OptionalHere here;
  Shared<There> there;
  Shared<There> agreed;
  std::vector<ItemNumber> after;
  Attributes attributes;

  friend bool operator==(const KeptItem&, const KeptItem&) = default;
};

inline KeptItem keptItem(const Item& item) {
  return {item.number(), item.kind(),  item.here(),      item.there(),
          item.agreed(), item.after(), item.attributes()};
}

}  // namespace kestrowan::replica::model
