#pragma once

#include "replica/model/Edit.h"

namespace kestrowan::replica::pull {

/// Something of ours changes in a folder at the provider, and with that its date there. The next
/// date that a listing shows is taken as known, and programs go on seeing the one that they saw.
/// Does nothing for the root, and where the provider has no such folder.
void doubtFolderDate(model::Edit& edit, model::ItemNumber folder);

}  // namespace kestrowan::replica::pull
