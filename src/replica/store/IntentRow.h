#pragma once

#include <optional>

#include "replica/model/Intent.h"
#include "replica/store/Statement.h"

namespace kestrowan::replica::store {

/// A request without an answer as a row of the table "intents".

/// Makes the table.
extern const char* const kMakeIntents;
/// Inserts or replaces a row; takes its values with `bindIntent`.
extern const char* const kSaveIntent;
/// Gives all rows in the order of their numbers, for `intentFromRow`.
extern const char* const kLoadIntents;

/// The statement refers to the intent until it has run.
void bindIntent(Statement& save, const model::Intent& intent);
/// The intent of the row; nothing when it makes no sense.
std::optional<model::Intent> intentFromRow(const Statement& row);

}  // namespace kestrowan::replica::store
