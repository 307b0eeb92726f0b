#pragma once

#include <optional>

#include "replica/Records.h"
#include "replica/store/Statement.h"

namespace kestrowan::replica {

/// A record as a row of the table "items".

/// Inserts or replaces a row; takes its values with `bindItem`.
extern const char* const kSaveItem;
/// Gives all rows, for `itemFromRow`.
extern const char* const kLoadItems;

/// Whether a record could be one of this replica's: numbers in their ranges, a name that can be
/// one. The root's name may be anything.
bool isSensible(const ItemRecord& record);

/// The statement refers to the record, and to `attributes`, where the record's are put, until it
/// has run.
void bindItem(Statement& save, const ItemRecord& record, std::string& attributes);
/// The record of the row; nothing when it makes no sense.
std::optional<ItemRecord> itemFromRow(const Statement& row);

}  // namespace kestrowan::replica
