#pragma once

#include "replica/FileCalls.h"
#include "replica/calls/OpenItems.h"
#include "replica/model/State.h"

namespace kestrowan::replica::calls {

/// What programs see of an item that is here.
Attributes shown(const model::State& state, const model::Item& item, const OpenItems& openItems);

/// The same without what is in a folder.
Attributes shown(const model::Item& item, const OpenItems& openItems);

/// Whether the provider lets the item's contents, or what is in the folder, be changed.
bool mayWrite(const model::Item& item);
/// Whether the provider lets something be done with the item. What it has not got may be anything.
bool isCapable(const model::Item& item, NSFileProviderItemCapabilities capability);

/// The item as programs see it in the tree. Throws ESTALE for one that is no more.
const model::Item& require(const model::State& state, model::ItemNumber item);
/// The same for a folder; throws ENOTDIR for a file.
const model::Item& requireFolder(const model::State& state, model::ItemNumber folder);

/// A path of programs' names, each item of the tree at and below this one.
std::vector<model::ItemNumber> subtree(const model::State& state, model::ItemNumber item);

}  // namespace kestrowan::replica::calls
