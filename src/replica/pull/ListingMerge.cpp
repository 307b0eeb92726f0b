#include "replica/pull/ListingMerge.h"

#include <utility>

#include "replica/model/Seen.h"
#include "replica/plan/Uncertain.h"
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

plan::ListedEntry ListingMerge::planned(const State& state, const Item* folder,
                                        const FolderListing::Entry& listed) const {
  plan::ListedEntry result{listed.kind, listed.there.version};
  const Item* known = folder ? state.thereAt({folder->number(), listed.name()}) : nullptr;
  const bool isSame = known && known->kind() == listed.kind &&
                      (known->isFolder() || canBeSame(options_, *known->there(), listed.there));
  if (isSame) {
    result.version = known->there()->version;
  } else if (known && known->there()->version == listed.there.version) {
    result.version.text = distinctVersion(listed.there);
  }
  return result;
}

/// What the provider has by the entry; absent when it has other contents than those that are known.
std::optional<There> ListingMerge::detailed(const Item& item,
                                            const FolderListing::Entry& entry) const {
  const There& known = *item.there();
  const bool isDistinct = known.version.text == distinctVersion(entry.there);
  const bool isSame = item.isFolder() || known.version == entry.there.version || isDistinct ||
                      canBeSame(options_, known, entry.there);
  if (!isSame) return std::nullopt;
  There now = withDetails(known, entry.there);
  if (isDistinct) now.version = known.version;
  now.place = known.place;
  return now;
}

bool ListingMerge::isNews(const State& state, ItemNumber folder,
                          const FolderListing::Entry& listed) const {
  const Item* item = state.thereAt({folder, listed.name()});
  if (!item || item->kind() != listed.kind) return true;
  const auto now = detailed(*item, listed);
  return !now || *now != *std::as_const(*item).there();
}

/// What an entry says beside the version: sizes, dates, what may be done.
void ListingMerge::writeDetails(Edit& edit, const Item& folder,
                                const FolderListing::Entry& listed) const {
  const Item* item = edit->thereAt({folder.number(), listed.name()});
  if (!item || item->kind() != listed.kind) return;
  const auto now = detailed(*item, listed);
  const There& known = *item->there();
  if (!now || *now == known) return;
  if (item->isFolder()) showDate(edit, *item, known, *now);
  const bool isAgreed = item->agreed() && item->agreed()->version == known.version;
  if (isAgreed) {
    There agreed = *now;
    agreed.place = item->agreed()->place;
    agreed.content = item->agreed()->content;
    edit.describeAgreed(item->number(), std::move(agreed));
  }
  edit.setThere(item->number(), *now);
}

void ListingMerge::writeEntries(Edit& edit, const Path& path, const SomeEntries& entries,
                                const std::vector<Path>& answered) const {
  const Item* folder = edit->atPath(path);
  if (!folder) return;
  for (const auto* listed : entries) {
    if (!plan::isUncertain(*edit, path.child(listed->name()), answered)) {
      plan::observeEntry(edit, {folder->number(), listed->name()}, planned(*edit, folder, *listed));
    }
    writeDetails(edit, *folder, *listed);
  }
}

void ListingMerge::noteListed(Edit& edit, const FolderListings& listings, Time began) {
  for (const auto& [path, listing] : listings) {
    const Item* folder = listing && listing->isWhole ? edit->atPath(path) : nullptr;
    if (!folder) continue;
    Attributes attributes = folder->attributes();
    attributes.listedAt = began;
    edit.setAttributes(folder->number(), std::move(attributes));
  }
}

plan::Written ListingMerge::write(Edit& edit, const std::vector<ItemNumber>& folders,
                                  const FolderListings& listings, const std::vector<Path>& answered,
                                  Time began, const plan::Doubts& doubts) const {
  plan::Shown shown{{}, began, answered};
  for (const auto& [path, listing] : listings) {
    auto& planned = shown.listings[path];
    if (!listing) continue;
    planned.emplace();
    planned->isWhole = listing->provesAbsence();
    const Item* folder = edit->atPath(path);
    for (const auto& listed : listing->entries) {
      planned->entries.emplace(listed.name(), this->planned(*edit, folder, listed));
    }
  }
  auto written = plan::observe(edit, folders, shown, doubts);
  if (!written.lacking.empty()) return written;
  for (const auto& [path, listing] : listings) {
    const Item* folder = listing ? edit->atPath(path) : nullptr;
    if (!folder) continue;
    for (const auto& listed : listing->entries) writeDetails(edit, *folder, listed);
  }
  settle(edit);
  noteListed(edit, listings, began);
  return written;
}

}  // namespace kestrowan::replica::pull
