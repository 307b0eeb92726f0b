#pragma once

#include <memory>
#include <string>

#include "replica/store/Database.h"

namespace kestrowan::replica {

/// Opens the replica's database at `path`, or makes it, and brings it to the newest schema. Throws
/// `NSError`: EIO for a file that is no such database or a damaged one, ENOTSUP for one of a later
/// version.
std::unique_ptr<Database> openReplicaDatabase(const std::string& path);

/// Opens the database at `path` to be read alone: what is asked of it is of the newest schema, and
/// nothing of the file or its log changes. Null when there is none, or an empty one. Throws as
/// above, but looks for no damage.
std::unique_ptr<Database> readReplicaDatabase(const std::string& path);

}  // namespace kestrowan::replica
