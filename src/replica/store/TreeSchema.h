#pragma once

#include <memory>
#include <string>

#include "replica/model/Numbers.h"
#include "replica/remote/IdentifierForm.h"
#include "replica/store/Database.h"

namespace kestrowan::replica::store {

/// Opens the database of a tree at `path`, or makes it; one of the versions before the tree is
/// taken over, in one transaction. Throws `NSError` as `openReplicaDatabase` does.
std::unique_ptr<Database> openTreeDatabase(const std::string& path,
                                           const remote::IdentifierForm& form, model::Time now);

/// Opens the database at `path` to be read alone, as a tree whatever its version is: nothing of the
/// file or its log changes. Null when there is none, or an empty one. Throws as above, but looks
/// for no damage.
std::unique_ptr<Database> readTreeDatabase(const std::string& path,
                                           const remote::IdentifierForm& form, model::Time now);

}  // namespace kestrowan::replica::store
