#pragma once

#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "replica/model/Edit.h"
#include "replica/plan/Doubts.h"

namespace kestrowan::replica::plan {

/// What a folder was listed to have, by name.
struct ListedEntry {
  model::Kind kind = model::Kind::file;
  model::Version version;
};
struct Listing {
  using Entries = std::map<std::string, ListedEntry, std::less<>>;

  Listing() = default;
  Listing(std::initializer_list<Entries::value_type> entries) : entries(entries) {}

  Entries entries;
  /// All of it came, and no entry was refused. Else it proves of nothing that it is not there.
  bool isWhole = true;
};

/// Listings that belong to one look, by the folders' paths. Absent: there is no such folder.
using Listings = std::map<model::Path, std::optional<Listing>>;

/// What a look showed. Of one folder, looks are to be written in the order in which they began.
struct Shown {
  Listings listings;
  /// When the first of the listings was asked for.
  model::Time began;
  /// The sources and targets of requests whose answers have come since then. A listing may show
  /// what was at and below these before.
  std::vector<model::Path> answered;
};

/// What became of a look.
struct Written {
  /// The paths of folders whose listings are lacking. Unless there are none, the edit is to be
  /// given up, and `observe` to be called again in a new one with these added. Otherwise the edit
  /// is to be committed by the caller.
  std::vector<model::Path> lacking;
  /// Nothing was left as it is known; else the folders are to be listed again, after the answers.
  bool isWhole = true;
  /// Folders whose listings did not come whole, or are not believed. Nothing is to be created in
  /// them or moved there, since it could replace what the listing lacks.
  std::vector<model::ItemNumber> unproved;
  /// What is doubted after this look, for the next one.
  Doubts doubts;
};

/// Writes what a look showed of `folders`. `there` is what the listings show; `agreed` follows only
/// where a request of ours without an answer explains it: an item that was moved keeps its
/// identity, and what our own removal took is to be made anew. Requests that ended before and whose
/// folders were all listed are looked for then. What is at or below the paths of requests that are
/// under way, or were answered meanwhile, stays as it is known.
///
/// Where a move without an answer may have brought something into one of the folders or out of it,
/// the other folder belongs to the look too.
///
/// What a listing lacks is absent when `Belief` says so, with what earlier looks left in doubt.
/// What our own removal took, and what a folder lacks that a move of ours left, is known without
/// that.
Written observe(model::Edit& edit, const std::vector<model::ItemNumber>& folders,
                const Shown& shown, const Doubts& doubts);

/// A look at folders with very many entries may be written in several edits instead. What others
/// change between these is left as it is known when requests of ours did it, as above. At first
/// where moves went: as long as nothing else was written, the places that they took are free. Of
/// `shown`, only entries at the paths of requests without an answer are needed. The result: what is
/// lacking, and if nothing is, the folders of the look with those that moves join to them.
struct Moved {
  std::vector<model::Path> lacking;
  std::vector<model::ItemNumber> folders;
};
Moved observeMoves(model::Edit& edit, const std::vector<model::ItemNumber>& folders,
                   const Shown& shown);
/// Then what was listed, each where nothing of another kind is; and what is lacking, which
/// `markAbsent` marks where `Belief` says so.
void observeEntry(model::Edit& edit, const model::Place& place, const ListedEntry& entry);
/// At last, that `folders` were written: requests that ended before are looked for then.
void observeEnd(model::Edit& edit, const std::vector<model::ItemNumber>& folders,
                const Shown& shown);

}  // namespace kestrowan::replica::plan
