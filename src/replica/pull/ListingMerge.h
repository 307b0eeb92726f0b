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
/// Some entries of one.
using SomeEntries = std::vector<const FolderListing::Entry*>;

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

  /// What the planner is to know of an entry: its version is the one that is known when the
  /// contents can be the same. `folder`: null when it is not known.
  plan::ListedEntry planned(const model::State& state, const model::Item* folder,
                            const FolderListing::Entry& listed) const;
  /// Whether `writeEntries` would change anything for the entry.
  bool isNews(const model::State& state, model::ItemNumber folder,
              const FolderListing::Entry& listed) const;
  /// Writes what some entries of a folder show, each where nothing of another kind is. What is
  /// uncertain stays as it is known. Nothing is settled.
  void writeEntries(model::Edit& edit, const model::Path& folder, const SomeEntries& entries,
                    const std::vector<model::Path>& answered) const;
  /// Settles what can be without a request, and notes when the folders were listed; of one that did
  /// not come whole, that stays as it is.
  void settle(model::Edit& edit) const { settler_.settleAll(edit); }
  static void noteListed(model::Edit& edit, const FolderListings& listings, model::Time began);

 private:
  std::optional<model::There> detailed(const model::Item& item,
                                       const FolderListing::Entry& entry) const;
  void writeDetails(model::Edit& edit, const model::Item& folder,
                    const FolderListing::Entry& listed) const;

  const Options& options_;
  const Settler& settler_;
};

}  // namespace kestrowan::replica::pull
