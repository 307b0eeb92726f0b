#pragma once

#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "replica/Options.h"
#include "replica/model/Edit.h"
#include "replica/model/Path.h"
#include "replica/plan/Observing.h"
#include "replica/pull/FolderListing.h"
#include "replica/pull/Settler.h"

namespace kestrowan::replica::pull {

/// What was listed at some paths; null: there is no such folder.
using FolderListings = std::map<model::Path, std::shared_ptr<const FolderListing>>;

/// Writes listings into the states, and settles what they show. Usable from every thread, within an
/// edit.
class ListingMerge {
 public:
  /// Both must outlive it.
  ListingMerge(const Options& options, const Settler& settler);

  /// One look: the listings of `folders`, and of those that were asked for besides. `answered`: the
  /// paths of requests whose answers have come since the look began. `doubts`: what earlier looks
  /// left in doubt. See `plan::observe` for the result; unless nothing is lacking, nothing is to be
  /// committed.
  plan::Written write(model::Edit& edit, const std::vector<model::ItemNumber>& folders,
                      const FolderListings& listings, const std::vector<model::Path>& answered,
                      model::Time began, const plan::Doubts& doubts) const;

 private:
  plan::Listing planned(const model::State& state, const model::Path& path,
                        const FolderListing& listing) const;
  void writeDetails(model::Edit& edit, const model::Path& path, const FolderListing& listing) const;

  const Options& options_;
  const Settler& settler_;
};

}  // namespace kestrowan::replica::pull
