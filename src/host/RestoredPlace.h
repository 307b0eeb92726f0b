#pragma once

#include <string>

#include "replica/Replica.h"

namespace kestrowan::host {

/// Where a file of the history is made again.
struct RestoredPlace {
  replica::Rid folder = 0;
  std::string name;
  replica::NameTaken ifTaken = replica::NameTaken::fails;
};

/// The place of the entry `id`. `path` begins with "/" at the mount's root, and names a folder for
/// it, or the file itself in a folder that is there. When it is empty the place is where the file
/// was; folders that are gone are made, and a name that is taken gives way to one like it. Blocks.
/// Throws `NSError` with a text for a person: ENOENT for an entry or a folder that is not there,
/// EINVAL for an entry of which no place is known.
RestoredPlace placeOfRestored(replica::Replica& replica, replica::ContentNumber id,
                              const std::string& path);

}  // namespace kestrowan::host
