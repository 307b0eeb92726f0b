#include "replica/pull/Look.h"

#include <algorithm>
#include <utility>

#include "replica/model/View.h"

namespace kestrowan::replica::pull {

using model::Edit;
using model::Item;
using model::ItemNumber;
using model::Path;
using model::State;
using model::View;

namespace {

/// What requests of ours have changed since a look began, or are changing now.
std::vector<Path> touchedPaths(const State& state, const Touches::Watch& watch) {
  auto paths = watch.touched();
  for (const model::Intent& intent : state.intents().all()) {
    if (!intent.isUnderWay()) continue;
    const auto asked = intent.paths();
    paths.insert(paths.end(), asked.begin(), asked.end());
  }
  return paths;
}

/// Whether a folder that was listed may have been another one meanwhile.
bool isDisturbed(const FolderListings& listings, const std::vector<Path>& touched) {
  return std::any_of(touched.begin(), touched.end(), [&](const Path& path) {
    return std::any_of(listings.begin(), listings.end(),
                       [&](const auto& listed) { return listed.first.isAtOrBelow(path); });
  });
}

/// Whether the folder above has a folder at that path.
bool isListed(const FolderListings& listings, const Path& path) {
  const auto above = listings.find(path.folder());
  if (above == listings.end() || !above->second) return false;
  const auto* found = above->second->find(path.name());
  return found && found->kind == model::Kind::folder;
}

}  // namespace

Look::Look(model::Tree& tree, const ListingMerge& merge, NameForms& forms, Touches& touches,
           std::vector<ItemNumber> folders, model::Time began)
    : tree_(tree),
      merge_(merge),
      forms_(forms),
      watch_(touches),
      folders_(std::move(folders)),
      began_(began) {
  const View view(tree_);
  for (const ItemNumber number : folders_) {
    const Item* folder = view->find(number);
    if (folder && folder->there()) paths_.push_back(view->therePath(*folder));
  }
}

void Look::add(const Path& path, std::shared_ptr<const FolderListing> listing) {
  listings_[path] = std::move(listing);
}

void Look::fail(const Path& path, const NSError& error) {
  failed_.emplace(path, error);
  listings_[path] = nullptr;
}

bool Look::isMisplaced() const {
  const View view(tree_);
  return isDisturbed(asked_, touchedPaths(*view, watch_));
}

Look::Outcome Look::write(plan::Doubts& doubts) {
  Edit edit(tree_);
  // A folder that has moved, or moves now, may have been listed in either place.
  if (isDisturbed(listings_, touchedPaths(*edit, watch_))) return Outcome::disturbed;
  for (auto& [path, listing] : listings_) {
    if (listing) listing = forms_.known(*edit, path, std::move(listing));
  }
  if (SlicedMerge::isNeeded(*edit, listings_)) {
    slices_.emplace(merge_, listings_, began_);
    paths_ = slices_->begin(edit, folders_, watch_.touched());
    if (!paths_.empty()) return Outcome::lacking;
    requireNoneListed();
    edit.commit();
    return Outcome::large;
  }
  auto written = merge_.write(edit, folders_, listings_, watch_.touched(), began_, doubts);
  paths_ = std::move(written.lacking);
  if (!paths_.empty()) return Outcome::lacking;
  requireNoneListed();
  edit.commit();
  doubts = std::move(written.doubts);
  noteProofs(*edit, written.unproved, doubts);
  requireGone(*edit);
  return Outcome::written;
}

void Look::requireNoneListed() const {
  for (const auto& [path, error] : failed_) {
    if (isListed(listings_, path)) throw error;
  }
}

void Look::requireGone(const State& state) const {
  for (const ItemNumber number : folders_) {
    const Item* folder = state.find(number);
    if (!folder || !folder->there()) continue;
    const auto failed = failed_.find(state.therePath(*folder));
    if (failed != failed_.end()) throw failed->second;
  }
}

void Look::compare() {
  slices_->compare(tree_, watch_.touched());
}

Look::Outcome Look::writeSlice(plan::Doubts& doubts) {
  Edit edit(tree_);
  if (isDisturbed(listings_, touchedPaths(*edit, watch_))) return Outcome::disturbed;
  const auto outcome = slices_->write(edit, watch_.touched(), doubts);
  if (outcome == SlicedMerge::Outcome::disturbed) return Outcome::disturbed;
  edit.commit();
  if (outcome == SlicedMerge::Outcome::more) return Outcome::more;
  noteProofs(*edit, slices_->unproved(), doubts);
  requireGone(*edit);
  return Outcome::written;
}

void Look::forget() {
  slices_.reset();
  listings_.clear();
}

void Look::noteProofs(const State& state, const std::vector<ItemNumber>& unproved,
                      const plan::Doubts& doubts) {
  for (const auto& [path, listing] : listings_) {
    const Item* folder = state.atPath(path);
    if (!folder) continue;
    Proof proof;
    proof.folder = folder->number();
    proof.isUnproved = std::find(unproved.begin(), unproved.end(), proof.folder) != unproved.end();
    proof.hasRefused = listing && listing->refused > 0;
    const auto& missing = doubts.missing;
    const bool isMissing = std::any_of(missing.begin(), missing.end(), [&](const auto& one) {
      const Item* item = state.find(one.first);
      return item && item->there() && item->there()->place.folder == proof.folder;
    });
    if (doubts.suspected.contains(proof.folder)) {
      proof.again = plan::kSuspicionTime;
    } else if (isMissing) {
      proof.again = plan::kSecondLook;
    }
    proofs_.push_back(proof);
  }
}

}  // namespace kestrowan::replica::pull
