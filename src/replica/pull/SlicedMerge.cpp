#include "replica/pull/SlicedMerge.h"

#include <algorithm>
#include <string>
#include <utility>

#include "replica/model/View.h"
#include "replica/plan/Absence.h"
#include "replica/plan/Uncertain.h"

namespace kestrowan::replica::pull {

using model::Edit;
using model::Item;
using model::ItemNumber;
using model::Path;
using model::State;
using model::Tree;
using model::View;
using plan::Belief;

namespace {

/// Up to `most`, how many items the provider has below the folder.
std::size_t countBelow(const State& state, const Item& folder, std::size_t most) {
  std::size_t count = state.countThereIn(folder.number());
  if (count >= most) return count;
  for (const Item* child : state.thereIn(folder.number())) {
    if (count >= most) break;
    if (child->isFolder()) count += countBelow(state, *child, most - count);
  }
  return count;
}

/// Whether the listing has an entry of the item's name and kind.
bool isListed(const FolderListing& listing, const Item& item) {
  const auto* found = listing.find(item.there()->place.name);
  return found && found->kind == item.kind();
}

}  // namespace

bool SlicedMerge::isNeeded(const State& state, const FolderListings& listings) {
  std::size_t work = 0;
  for (const auto& [path, listing] : listings) {
    if (!listing) continue;
    const Item* folder = state.atPath(path);
    const std::size_t known = folder ? state.countThereIn(folder->number()) : 0;
    work += std::max(listing->entries.size(), known);
    if (work > kSlice) return true;
    if (known == 0) continue;
    for (const Item* child : state.thereIn(folder->number())) {
      if (child->isFolder() && !isListed(*listing, *child)) {
        work += countBelow(state, *child, kSlice + 1 - work);
      }
      if (work > kSlice) return true;
    }
  }
  return false;
}

/// With the entries alone that requests without an answer are about.
plan::Shown SlicedMerge::shown(const Edit& edit, const std::vector<Path>& answered) const {
  plan::Shown shown{{}, began_, answered};
  for (const auto& [path, listing] : listings_) {
    auto& some = shown.listings[path];
    if (listing) some.emplace();
  }
  for (const model::Intent& intent : edit->intents().all()) {
    for (const Path& path : intent.paths()) {
      const auto listing = path.isRoot() ? listings_.end() : listings_.find(path.folder());
      if (listing == listings_.end() || !listing->second) continue;
      const auto* entry = listing->second->find(path.name());
      if (!entry) continue;
      const Item* folder = edit->atPath(path.folder());
      shown.listings[listing->first]->entries.emplace(entry->name(),
                                                      merge_.planned(*edit, folder, *entry));
    }
  }
  return shown;
}

std::vector<Path> SlicedMerge::begin(Edit& edit, const std::vector<ItemNumber>& folders,
                                     const std::vector<Path>& answered) {
  auto moved = plan::observeMoves(edit, folders, shown(edit, answered));
  if (!moved.lacking.empty()) return std::move(moved.lacking);
  for (const ItemNumber number : moved.folders) {
    const Item* item = edit->find(number);
    if (!item || !item->there()) continue;
    Folder folder;
    folder.number = number;
    folder.path = edit->therePath(*item);
    const auto listing = listings_.find(folder.path);
    folder.listing = listing == listings_.end() ? nullptr : listing->second.get();
    if (plan::isUncertain(*edit, folder.path, answered)) continue;
    folders_.push_back(std::move(folder));
  }
  return {};
}

void SlicedMerge::compare(const Tree& tree, const std::vector<Path>& answered) {
  for (Folder& folder : folders_) {
    if (!folder.listing) continue;
    compareEntries(tree, folder);
    compareLacked(tree, folder, answered);
  }
}

void SlicedMerge::compareEntries(const Tree& tree, Folder& folder) const {
  plan::ListingDigest digest;
  const auto& entries = folder.listing->entries;
  for (auto next = entries.begin(); next != entries.end();) {
    const View view(tree);
    const Item* known = view->find(folder.number);
    for (std::size_t i = 0; i < kSlice && next != entries.end(); ++i, ++next) {
      digest.add(next->name(), merge_.planned(*view, known, *next));
      if (merge_.isNews(*view, folder.number, *next)) folder.news.push_back(&*next);
    }
  }
  folder.digest = digest.value();
}

void SlicedMerge::compareLacked(const Tree& tree, Folder& folder,
                                const std::vector<Path>& answered) {
  for (std::string behind;;) {
    const View view(tree);
    const auto page = view->thereIn(folder.number, behind, kSlice);
    if (page.empty()) return;
    behind = page.back()->there()->place.name;
    for (const Item* item : page) {
      const Path path = folder.path.child(item->there()->place.name);
      if (plan::isUncertain(*view, path, answered)) continue;
      ++folder.known;
      if (!isListed(*folder.listing, *item)) noteLacked(*view, folder, *item);
    }
  }
}

void SlicedMerge::noteLacked(const State& state, Folder& folder, const Item& item) {
  const std::string& name = item.there()->place.name;
  folder.lacked.push_back(item.number());
  const bool isOwn = plan::isOwnRemoval(state, folder.path.child(name));
  if (!isOwn && item.here() && !folder.listing->find(name)) ++folder.lost;
  if (item.isFolder() && Belief::losesNothing(state, item)) lossless_.insert(item.number());
}

bool SlicedMerge::isLacked(const Folder& folder, const Item& item) {
  return item.there() && item.there()->place.folder == folder.number &&
         !isListed(*folder.listing, item);
}

SlicedMerge::Outcome SlicedMerge::write(Edit& edit, const std::vector<Path>& answered,
                                        plan::Doubts& doubts) {
  for (const Folder& folder : folders_) {
    const Item* at = edit->atPath(folder.path);
    if (!at || at->number() != folder.number) return Outcome::disturbed;
  }
  std::size_t budget = kSlice;
  for (Folder& folder : folders_) {
    if (!folder.listing) continue;
    if (budget > 0) writeNews(edit, folder, answered, budget);
    if (budget > 0) writeLacked(edit, folder, answered, doubts, budget);
  }
  merge_.settle(edit);
  if (budget == 0) return Outcome::more;
  end(edit, answered, doubts);
  return Outcome::last;
}

void SlicedMerge::writeNews(Edit& edit, Folder& folder, const std::vector<Path>& answered,
                            std::size_t& budget) const {
  const std::size_t count = std::min(budget, folder.news.size() - folder.newsWritten);
  const auto first = folder.news.begin() + static_cast<std::ptrdiff_t>(folder.newsWritten);
  const SomeEntries some(first, first + static_cast<std::ptrdiff_t>(count));
  merge_.writeEntries(edit, folder.path, some, answered);
  folder.newsWritten += count;
  budget -= count;
}

void SlicedMerge::writeLacked(Edit& edit, Folder& folder, const std::vector<Path>& answered,
                              plan::Doubts& doubts, std::size_t& budget) const {
  if (!folder.listing->provesAbsence()) return;
  Belief belief(doubts, began_);
  if (!folder.isBelieved) {
    folder.isBelieved =
        belief.isBelieved({folder.number, folder.known, folder.lost,
                           folder.listing->entries.empty(), [&] { return folder.digest; }});
  }
  while (folder.lackedWritten < folder.lacked.size() && budget > 0) {
    const ItemNumber item = folder.lacked[folder.lackedWritten];
    if (!writeAbsent(edit, folder, item, answered, belief, budget)) return;
    ++folder.lackedWritten;
  }
}

/// Whether nothing more is to be done about the item.
bool SlicedMerge::writeAbsent(Edit& edit, Folder& folder, ItemNumber number,
                              const std::vector<Path>& answered, Belief& belief,
                              std::size_t& budget) const {
  const Item* item = edit->find(number);
  const bool isStill = item && isLacked(folder, *item);
  const std::string name(isStill ? std::string(item->there()->place.name) : std::string());
  if (!isStill || plan::isUncertain(*edit, folder.path.child(name), answered)) {
    --budget;
    return true;
  }
  const bool isOwn = plan::isOwnRemoval(*edit, folder.path.child(name));
  bool isSure = isOwn;
  if (!isOwn && *folder.isBelieved) {
    const bool isLossless = item->isFile() && Belief::losesNothing(*edit, *item);
    isSure = isLossless || belief.isAbsent(number, false);
  }
  if (!isSure && !(*folder.isBelieved && lossless_.contains(number))) {
    --budget;
    return true;
  }
  // What is below a folder may have been downloaded since that was asked.
  const auto marked = plan::markAbsent(edit, number, isOwn, budget, [&](const Item& file) {
    return isSure || Belief::losesNothing(*edit, file);
  });
  if (marked == plan::Marked::more) return false;
  const auto* entry = folder.listing->find(name);
  if (marked == plan::Marked::all && entry) {
    merge_.writeEntries(edit, folder.path, {entry}, answered);
  }
  return true;
}

void SlicedMerge::end(Edit& edit, const std::vector<Path>& answered, plan::Doubts& doubts) {
  std::vector<ItemNumber> written;
  for (const Folder& folder : folders_) {
    written.push_back(folder.number);
    if (!folder.listing) continue;
    const bool isProof =
        folder.listing->provesAbsence() && !doubts.suspected.contains(folder.number);
    if (!isProof) unproved_.push_back(folder.number);
  }
  plan::observeEnd(edit, written, shown(edit, answered));
  noteSeen(*edit, doubts);
  // What ended with these is settled too.
  merge_.settle(edit);
  ListingMerge::noteListed(edit, listings_, began_);
}

/// What was missing and is there, or is no more, is not in doubt.
void SlicedMerge::noteSeen(const State& state, plan::Doubts& doubts) const {
  std::erase_if(doubts.missing, [&](const auto& one) {
    const Item* item = state.find(one.first);
    if (!item || !item->there()) return true;
    return std::any_of(folders_.begin(), folders_.end(), [&](const Folder& folder) {
      return folder.listing && item->there()->place.folder == folder.number &&
             isListed(*folder.listing, *item);
    });
  });
}

}  // namespace kestrowan::replica::pull
