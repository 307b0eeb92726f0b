#pragma once

#include <optional>

#include "replica/Records.h"
#include "replica/store/Statement.h"

namespace kestrowan::replica {

/// A record as a row of the table "items" of the versions before the tree.

/// Gives all rows, for `itemFromRow`.
extern const char* const kLoadItems;

/// The record of the row; nothing when it makes no sense.
std::optional<ItemRecord> itemFromRow(const Statement& row);

}  // namespace kestrowan::replica
