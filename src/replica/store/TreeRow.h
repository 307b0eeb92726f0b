#pragma once

#include <optional>
#include <string>

#include "replica/model/KeptItem.h"
#include "replica/store/Statement.h"

namespace kestrowan::replica::store {

/// An item of the tree as a row of the table "tree". What is the same here and there is written
/// once, and a value that is the usual one not at all.

/// Makes the table.
extern const char* const kMakeTree;
/// Inserts or replaces a row; takes its values with `bindTreeItem`.
extern const char* const kSaveTreeItem;
/// Gives all rows, for `treeItemFromRow`. The first column is the number.
extern const char* const kLoadTree;

/// The bytes of values that the item has in another form; they must stay until the statement ran.
struct TreeRowBytes {
  std::string after;
  std::string user;
};

/// The statement refers to the item, and to `bytes`, until it has run.
void bindTreeItem(Statement& save, const model::KeptItem& item, TreeRowBytes& bytes);
/// The item of the row; nothing when it makes no sense by itself.
std::optional<model::KeptItem> treeItemFromRow(const Statement& row);

}  // namespace kestrowan::replica::store
