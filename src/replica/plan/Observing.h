#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "replica/model/Edit.h"

namespace kestrowan::replica::plan {

/// What a folder was listed to have, by name.
struct ListedEntry {
  model::Kind kind = model::Kind::file;
  model::Version version;
};
using Listing = std::map<std::string, ListedEntry, std::less<>>;

/// Listings that belong to one look, by the folders' paths. Absent: there is no such folder.
using Listings = std::map<model::Path, std::optional<Listing>>;

/// Writes what a look showed of `folders`, and of those that intents touch. `began`: when the first
/// of the listings was asked for. `there` is what they show; `agreed` follows only where a request
/// of ours without an answer explains it: an item that was moved keeps its identity, and what our
/// own removal took is to be made anew. Intents that ended before are looked for then.
///
/// Gives the paths of folders whose listings are lacking. Unless there are none, the edit is to be
/// given up, and `observe` to be called again in a new one with these added. Otherwise the edit is
/// to be committed by the caller.
std::vector<model::Path> observe(model::Edit& edit, const std::vector<model::ItemNumber>& folders,
                                 const Listings& listings, model::Time began);

}  // namespace kestrowan::replica::plan
