#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_set>
#include <vector>

#include "replica/model/Edit.h"
#include "replica/plan/Belief.h"
#include "replica/pull/ListingMerge.h"

namespace kestrowan::replica::pull {

/// Writes a look at folders with very many entries in slices: each an edit of its own, which holds
/// the tree's lock for the work of `kSlice` entries at most. In this order, so that whatever others
/// do in between, and if the process dies there, the tree is as after a listing of which only a
/// part came:
///
///     where moves of ours went      the places that they took are still free
///     what the listings show        each entry where nothing of another kind is
///     what they lack                by the whole listing, what is in a folder before the folder
///     when the folders were listed
///
/// Owned by one look; not thread-safe.
class SlicedMerge {
 public:
  static constexpr std::size_t kSlice = 1000;

  /// Whether writing these at once would be the work of more entries than that.
  static bool isNeeded(const model::State& state, const FolderListings& listings);

  /// Both must outlive it. `began`: see `plan::Shown`.
  SlicedMerge(const ListingMerge& merge, const FolderListings& listings, model::Time began)
      : merge_(merge), listings_(listings), began_(began) {}

  /// The first slice. The paths of folders whose listings are lacking: unless there are none, the
  /// edit is to be given up, and this object with it. `answered`: see `ListingMerge::write`.
  std::vector<model::Path> begin(model::Edit& edit, const std::vector<model::ItemNumber>& folders,
                                 const std::vector<model::Path>& answered);
  /// Then: finds out what differs. Takes as long as there are entries, and holds the tree's lock,
  /// shared, for moments: not within an edit, and not on a loop.
  void compare(const model::Tree& tree, const std::vector<model::Path>& answered);

  enum class Outcome : std::uint8_t {
    more,       // another slice is to be written
    last,       // this was the last one
    disturbed,  // nothing was written: a folder is no longer what was listed
  };
  /// Then one slice after another. `doubts`: what looks left in doubt, up to this one.
  Outcome write(model::Edit& edit, const std::vector<model::Path>& answered, plan::Doubts& doubts);
  /// Folders whose listings proved nothing. After the last slice.
  const std::vector<model::ItemNumber>& unproved() const { return unproved_; }

 private:
  /// One folder of the look, and how far it is written.
  struct Folder {
    model::ItemNumber number = model::ItemNumber::none;
    model::Path path;
    const FolderListing* listing = nullptr;
    SomeEntries news;
    std::vector<model::ItemNumber> lacked;
    std::size_t known = 0;
    std::size_t lost = 0;
    std::uint64_t digest = 0;
    std::size_t newsWritten = 0;
    std::size_t lackedWritten = 0;
    std::optional<bool> isBelieved;
  };

  plan::Shown shown(const model::Edit& edit, const std::vector<model::Path>& answered) const;
  void compareEntries(const model::Tree& tree, Folder& folder) const;
  void compareLacked(const model::Tree& tree, Folder& folder,
                     const std::vector<model::Path>& answered);
  void noteLacked(const model::State& state, Folder& folder, const model::Item& item);
  static bool isLacked(const Folder& folder, const model::Item& item);
  void writeNews(model::Edit& edit, Folder& folder, const std::vector<model::Path>& answered,
                 std::size_t& budget) const;
  void writeLacked(model::Edit& edit, Folder& folder, const std::vector<model::Path>& answered,
                   plan::Doubts& doubts, std::size_t& budget) const;
  bool writeAbsent(model::Edit& edit, Folder& folder, model::ItemNumber item,
                   const std::vector<model::Path>& answered, plan::Belief& belief,
                   std::size_t& budget) const;
  void end(model::Edit& edit, const std::vector<model::Path>& answered, plan::Doubts& doubts);
  void noteSeen(const model::State& state, plan::Doubts& doubts) const;

  const ListingMerge& merge_;
  const FolderListings& listings_;
  const model::Time began_;
  std::vector<Folder> folders_;
  /// Folders that nothing here is lost with.
  std::unordered_set<model::ItemNumber> lossless_;
  std::vector<model::ItemNumber> unproved_;
};

}  // namespace kestrowan::replica::pull
