#include <algorithm>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "replica/Lister.h"

namespace kestrowan::replica {

namespace {

using std::chrono::milliseconds;

/// Materialised contents leave the view only when a second listing, this much later, lacks them.
constexpr std::int64_t kSecondLook = 2000;
/// The same for a listing that lost suspiciously much.
constexpr std::int64_t kSuspicionTime = 5000;
constexpr std::size_t kManyEntries = 10;
constexpr std::size_t kSomeEntries = 3;

}  // namespace

bool Lister::isSuspicious(const ItemPtr& folder, const Listing& listing) {
  FolderRuntime& runtime = core_.folder(folder);
  const auto known = core_.table.serverChildren(folder->rid);
  const auto lost =
      static_cast<std::size_t>(std::count_if(known.begin(), known.end(), [&](const ItemPtr& item) {
        return !item->removed && !item->isSending() && !listing.find(item->base->name);
      }));
  const bool half = known.size() >= kManyEntries && lost * 2 > known.size();
  const bool all = listing.entries.empty() && lost >= kSomeEntries;
  if (!half && !all) {
    runtime.suspectedDigest = 0;
    return false;
  }
  const std::uint64_t digest = listing.digest();
  const std::int64_t now = core_.uptime();
  if (runtime.suspectedDigest == digest && now - runtime.suspectedAt >= kSuspicionTime) {
    runtime.suspectedDigest = 0;
    return false;
  }
  if (runtime.suspectedDigest != digest) {
    runtime.suspectedDigest = digest;
    runtime.suspectedAt = now;
    core_.log("a listing lacks most of the folder and is not believed yet", *folder);
  }
  listLater(folder, milliseconds(runtime.suspectedAt + kSuspicionTime - now));
  return true;
}

bool Lister::apply(const ItemPtr& folder, const Listing& listing) {
  // What only a part of a listing lacks is no matter of belief: it is not removed at all.
  if (listing.whole && isSuspicious(folder, listing)) return false;
  Rows::Batch batch(core_.rows);
  FolderRuntime& runtime = core_.folder(folder);
  runtime.shadowed.clear();

  std::vector<ItemPtr> vanished;
  for (const ItemPtr& item : core_.table.serverChildren(folder->rid)) {
    if (item->isSending() || item->confirmed > listing.begun) continue;
    const auto* entry = listing.find(item->base->name);
    if (!entry || entry->kind != item->kind) {
      vanished.push_back(item);
    } else {
      runtime.missing.erase(item->rid);
    }
  }

  for (const auto& entry : listing.entries) {
    const ItemPtr known = core_.table.serverChild(folder->rid, entry.base.name);
    if (known && known->kind == entry.kind) {
      if (known->removed && !isSame(*known, entry.base)) core_.sync(known).changedThere = true;
      if (!known->isSending() && known->confirmed <= listing.begun) update(known, entry);
      continue;
    }
    if (known) {
      if (known->isSending() || known->confirmed > listing.begun) continue;
      std::erase(vanished, known);
      vanish(known, false);
      if (!known->gone && known->base) continue;
    }
    if (core_.isBeingSentTo(folder->rid, entry.base.name)) {
      // It may be what is being sent, or be in its way.
      runtime.shadowed[entry.base.name] = entry;
      continue;
    }
    const auto left = runtime.left.find(entry.base.name);
    if (left != runtime.left.end() && left->second > listing.begun) continue;

    // A file that vanished and one that came with the same version is one that was renamed.
    const auto renamed = std::find_if(vanished.begin(), vanished.end(), [&](const ItemPtr& item) {
      return entry.kind == ItemKind::file && item->kind == ItemKind::file && item->content != 0 &&
             !item->isPending() && item->base->versionKnown &&
             item->base->version == entry.base.version && item->base->size == entry.base.size &&
             item->base->date == entry.base.date;
    });
    if (renamed != vanished.end() && !core_.table.child(folder->rid, entry.base.name)) {
      const ItemPtr item = *renamed;
      vanished.erase(renamed);
      core_.moveInView(item, folder->rid, entry.base.name);
      core_.setBase(item, entry.base);
      continue;
    }
    add(folder, entry);
  }

  // A listing with entries that could not be admitted may have lost others to the same fault.
  if (listing.provesAbsence()) {
    for (const ItemPtr& item : vanished) {
      if (!item->gone && item->base) vanish(item, false);
    }
  }
  tellFolders();
  return true;
}

void Lister::insert(const ItemPtr& folder, const Listing::Entry& entry) {
  add(folder, entry);
  tellFolders();
}

void Lister::tellFolders() {
  for (const Rid folder : std::exchange(changedFolders_, {})) core_.showFolderChange(folder);
}

void Lister::add(const ItemPtr& folder, const Listing::Entry& entry) {
  if (const ItemPtr here = core_.table.child(folder->rid, entry.base.name)) {
    // Folders are the same when their names are; of files both sides are kept.
    if (here->mustCreate() && here->isFolder() && entry.kind == ItemKind::folder &&
        !here->isSending()) {
      core_.setBase(here, entry.base);
      changed_(here);
    } else {
      core_.folder(folder).shadowed[entry.base.name] = entry;
    }
    return;
  }
  const ItemPtr item = core_.makeItem(folder->rid, entry.base.name, entry.kind);
  item->lastUse = 0;
  item->pinned = folder->pinned;
  item->base = entry.base;
  item->size = entry.base.size;
  item->modified = modifiedOf(entry.base);
  item->changed = std::min(item->changed, item->modified);
  core_.table.add(item);
  core_.save(item);
  // What was in a folder before it was first listed is no change of it.
  if (folder->listedAt != 0) changedFolders_.insert(folder->rid);
  // Nobody keeps a memory of names that were not there, so nobody has to be told.
  if (item->pinned) changed_(item);
}

void Lister::showBase(const ItemPtr& item) {
  item->size = item->base->size;
  item->modified = modifiedOf(*item->base);
  item->dropPrivileges();
  core_.stamp(*item);
}

/// Whether the provider has the same contents of an item as was known.
bool Lister::isSame(const Item& item, const Base& listed) const {
  return item.isFolder() || canBeSame(core_.options, *item.base, listed);
}

/// Shows the date that the provider has of the same contents, unless a program set another one. A
/// folder's date never goes back.
void Lister::updateDate(const ItemPtr& item, const Base& listed) {
  const Base& known = *item->base;
  if (item->isFolder()) {
    if (!known.date || !listed.date || *known.date == *listed.date) return;
    item->modified = std::max(item->modified, modifiedOf(listed));
  } else if (item->content == 0 && item->modified == modifiedOf(known)) {
    item->modified = modifiedOf(listed);
  }
}

void Lister::update(const ItemPtr& item, const Listing::Entry& entry) {
  Base listed = entry.base;
  if (*item->base == listed) return;
  if (isSame(*item, listed)) {
    if (!listed.versionKnown && item->base->versionKnown) {
      listed.version = item->base->version;
      listed.versionKnown = true;
    }
    if (*item->base == listed) return;
    const std::int64_t modified = item->modified;
    updateDate(item, listed);
    if (item->modified != modified || item->base->capabilities != listed.capabilities) {
      core_.stamp(*item);
    }
    core_.setBase(item, std::move(listed));
    core_.itemChanged(item->rid, false);
    return;
  }
  // What is changed on both sides is decided when our change is about to be sent.
  if (item->contentsChanged || item->removed || item->writers > 0) return;
  if (item->content == 0) {
    core_.setBase(item, listed);
    showBase(item);
    core_.save(item);
    core_.itemChanged(item->rid, true);
    if (item->pinned) changed_(item);
    return;
  }
  replaceContents(item, listed);
}

/// The contents changed at the provider. The name gets a new item, so that whoever has the old one
/// open goes on reading the old contents.
void Lister::replaceContents(const ItemPtr& item, const Base& base) {
  const ItemPtr fresh = core_.makeItem(item->parent, item->name, item->kind);
  fresh->base = base;
  fresh->mode = item->mode;
  fresh->attributes = item->attributes;
  fresh->pinned = item->pinned;
  fresh->lastUse = item->lastUse;
  fresh->changed = item->changed;
  showBase(fresh);
  const Rid folder = item->parent;
  core_.itemChanged(item->rid, true);
  core_.dropItem(item, HistoryReason::updated);
  core_.table.add(fresh);
  core_.save(fresh);
  core_.entryChanged(folder, fresh->name);
  if (fresh->pinned || fresh->isPending()) changed_(fresh);
}

bool Lister::holdsChanges(const ItemPtr& folder) const {
  for (const ItemPtr& child : core_.table.children(folder->rid)) {
    if (child->isPending() || child->isSending() || child->localOnly) return true;
    if (child->writers > 0) return true;
    if (child->isFolder() && holdsChanges(child)) return true;
  }
  return false;
}

bool Lister::holdsContents(const ItemPtr& folder) const {
  for (const ItemPtr& child : core_.table.serverChildren(folder->rid)) {
    if (child->content != 0 && !child->removed) return true;
    if (child->isFolder() && holdsContents(child)) return true;
  }
  return false;
}

/// The provider does not have the item any more. `certain` when no second look is needed.
void Lister::vanish(const ItemPtr& item, bool certain) {
  if (item->removed) {
    for (const ItemPtr& child : core_.table.serverChildren(item->rid)) vanish(child, true);
    core_.dropItem(item, HistoryReason::removed);
    return;
  }
  // Whoever is writing decides what becomes of it.
  if (item->writers > 0) return;
  const bool materialised = item->isFolder() ? holdsContents(item) : item->content != 0;
  if (!certain && materialised && !item->contentsChanged) {
    const ItemPtr folder = core_.table.find(item->base->parent);
    FolderRuntime& runtime = core_.folder(folder);
    const std::int64_t now = core_.uptime();
    const auto since = runtime.missing.emplace(item->rid, now).first->second;
    if (now - since < kSecondLook) {
      listLater(folder, milliseconds(kSecondLook));
      return;
    }
    runtime.missing.erase(item->rid);
  }

  if (item->isFolder()) {
    const auto below = core_.table.serverChildren(item->rid);
    const bool keep = holdsChanges(item) || item->mustMove();
    for (const ItemPtr& child : below) {
      if (!child->gone && child->base) vanish(child, true);
    }
    if (keep && (core_.table.hasChildren(item->rid))) {
      core_.setBase(item, std::nullopt);
      item->listedAt = 0;
      core_.save(item);
      changed_(item);
      return;
    }
  } else if (item->contentsChanged || (item->mustMove() && item->content != 0)) {
    // Changed here and removed there: what was changed lives on.
    core_.setBase(item, std::nullopt);
    changed_(item);
    return;
  }
  const Rid folder = item->parent;
  const std::string name = item->name;
  core_.itemChanged(item->rid, false);
  core_.dropItem(item, HistoryReason::vanished);
  core_.entryChanged(folder, name);
  changedFolders_.insert(folder);
}

}  // namespace kestrowan::replica
