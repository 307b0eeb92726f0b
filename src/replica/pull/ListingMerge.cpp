#include "replica/pull/ListingMerge.h"

#include <utility>

#include "replica/model/Seen.h"
#include "replica/pull/Sameness.h"

namespace kestrowan::replica::pull {

using model::Attributes;
using model::Edit;
using model::Item;
using model::ItemNumber;
using model::Path;
using model::Place;
using model::State;
using model::There;
using model::Time;

namespace {

/// A version that only says more than the one before of the same contents.
There withDetails(const There& known, const There& listed) {
  There now = listed;
  now.content = known.content;
  if (!listed.isVersionKnown && known.isVersionKnown) {
    now.version = known.version;
    now.isVersionKnown = true;
  }
  return now;
}

/// A date of a folder that programs saw gives way to a later one that another client's change made.
void showDate(Edit& edit, const Item& folder, const There& known, const There& now) {
  const auto& shown = folder.attributes().modified;
  if (!shown || !known.date || !now.date || known.date == now.date) return;
  if (model::modifiedOf(now) < *shown) return;
  Attributes attributes = folder.attributes();
  attributes.modified.reset();
  edit.setAttributes(folder.number(), std::move(attributes));
}

}  // namespace

ListingMerge::ListingMerge(const Options& options, const Settler& settler)
    : options_(options), settler_(settler) {}

plan::Listing ListingMerge::planned(const State& state, const Path& path,
                                    const FolderListing& listing) const {
  plan::Listing result;
  result.isWhole = listing.provesAbsence();
  const Item* folder = state.atPath(path);
  for (const auto& [name, entry] : listing.entries) {
    plan::ListedEntry planned{entry.kind, entry.there.version};
    const Item* known = folder ? state.thereAt({folder->number(), name}) : nullptr;
    const bool isSame = known && known->kind() == entry.kind &&
                        (known->isFolder() || canBeSame(options_, *known->there(), entry.there));
    if (isSame) {
      planned.version = known->there()->version;
    } else if (known && known->there()->version == entry.there.version) {
      planned.version.text = distinctVersion(entry.there);
    }
    result.entries.emplace(name, std::move(planned));
  }
  return result;
}

/// What a listing says beside the versions: sizes, dates, what may be done.
void ListingMerge::writeDetails(Edit& edit, const Path& path, const FolderListing& listing) const {
  const Item* folder = edit->atPath(path);
  if (!folder) return;
  for (const auto& [name, entry] : listing.entries) {
    const Item* item = edit->thereAt({folder->number(), name});
    if (!item || item->kind() != entry.kind) continue;
    const There& known = *item->there();
    const bool isDistinct = known.version.text == distinctVersion(entry.there);
    const bool isSame = item->isFolder() || known.version == entry.there.version || isDistinct ||
                        canBeSame(options_, known, entry.there);
    if (!isSame) continue;
    There now = withDetails(known, entry.there);
    if (isDistinct) now.version = known.version;
    now.place = known.place;
    if (now == known) continue;
    if (item->isFolder()) showDate(edit, *item, known, now);
    const bool isAgreed = item->agreed() && item->agreed()->version == known.version;
    if (isAgreed) {
      There agreed = now;
      agreed.place = item->agreed()->place;
      agreed.content = item->agreed()->content;
      edit.setAgreed(item->number(), std::move(agreed));
    }
    edit.setThere(item->number(), std::move(now));
  }
}

plan::Written ListingMerge::write(Edit& edit, const std::vector<ItemNumber>& folders,
                                  const FolderListings& listings, const std::vector<Path>& answered,
                                  Time began, const plan::Doubts& doubts) const {
  plan::Shown shown{{}, began, answered};
  for (const auto& [path, listing] : listings) {
    if (listing) {
      shown.listings.emplace(path, planned(*edit, path, *listing));
    } else {
      shown.listings.emplace(path, std::nullopt);
    }
  }
  auto written = plan::observe(edit, folders, shown, doubts);
  if (!written.lacking.empty()) return written;
  for (const auto& [path, listing] : listings) {
    if (listing) writeDetails(edit, path, *listing);
  }
  settler_.settleAll(edit);
  for (const auto& [path, listing] : listings) {
    const Item* folder = listing && listing->isWhole ? edit->atPath(path) : nullptr;
    if (!folder) continue;
    Attributes attributes = folder->attributes();
    attributes.listedAt = began;
    edit.setAttributes(folder->number(), std::move(attributes));
  }
  return written;
}

}  // namespace kestrowan::replica::pull
