#include <sys/stat.h>

#include <algorithm>
#include <unordered_set>
#include <utility>
#include <vector>

#include "replica/Implementation.h"
#include "replica/NameRules.h"
#include "replica/remote/ValidName.h"

namespace kestrowan::replica {

namespace {

/// Until the provider was asked the root may be read and written.
constexpr NSFileProviderItemCapabilities kRootCapabilities =
    NSFileProviderItemCapability::allowsReading | NSFileProviderItemCapability::allowsWriting;
/// No replica gives as many numbers; whatever bears a higher one was not made by one.
constexpr Number kHighestNumber = Number{1} << 62;
/// Of a folder that is known, but has to be looked at before anything is done with it.
constexpr std::int64_t kListedLongAgo = 1;

bool isRootRecord(const ItemRecord& record) {
  return record.parent == kRootRid && record.kind == ItemKind::folder && !record.removed &&
         record.base && record.base->parent == kRootRid &&
         remote::IdentifierForm::isRoot(record.base->identifier);
}

}  // namespace

Replica::Implementation::Implementation(Replica& replica, const std::string& directory,
                                        async::Loop& loop, Options options)
    : core(directory, loop, std::move(options)),
      health(core.loop, core.provider, core.mutex,
             [this] {
               {
                 std::lock_guard lock(core.mutex);
                 sender.healthChanged();
               }
               sender.pump();
             }),
      lister(core, health, [this](const ItemPtr& item) { itemChangedByListing(item); }),
      fetcher(core, health),
      sender(core, health, lister, fetcher),
      replica_(replica),
      useMark_(directory) {
  // The loop may run what is posted here at once.
  std::lock_guard lock(core.mutex);
  load();
  core.table.forEach([this](const ItemPtr& item) { core.tally.note(*item); });
  sender.restore();
  fetcher.watchLimits();
}

Replica::Implementation::~Implementation() {
  core.loop.close();
  core.removeRetired();
  try {
    core.recoverRest();
    core.contents.syncAll();
    core.store.sync();
    useMark_.clear();
  } catch (const NSError& error) {
    core.log("could not be made durable", *core.table.find(kRootRid), error.localizedDescription());
  }
}

void Replica::Implementation::load() {
  std::size_t displaced = 0;
  Number highest = 0;
  const std::size_t senseless = core.store.load([&](ItemRecord record) {
    for (const Number number :
         {record.rid, record.content, record.sent ? record.sent->content : 0}) {
      if (number <= kHighestNumber) highest = std::max(highest, number);
    }
    if (!loadRecord(std::move(record))) ++displaced;
  });
  for (const ContentNumber number : core.contents.numbers()) {
    if (number <= kHighestNumber) highest = std::max(highest, number);
  }
  // A database that has not given all of them is older than the contents.
  const bool isOutdated = core.store.skipNumber(highest);
  const bool isNew = core.table.size() == 0 && senseless + displaced == 0;
  if (!core.table.find(kRootRid)) {
    auto root = std::make_shared<Item>();
    root->rid = kRootRid;
    root->parent = kRootRid;
    root->kind = ItemKind::folder;
    root->modified = core.nanoseconds();
    root->changed = root->modified;
    root->base = Base{.identifier = std::string(NSFileProviderRootContainerItemIdentifier),
                      .parent = kRootRid,
                      .capabilities = kRootCapabilities};
    core.table.add(root);
    core.save(root);
  }
  const Item& root = *core.table.find(kRootRid);
  if (senseless + displaced > 0) {
    core.log("rows that make no sense were left out", root, std::to_string(senseless + displaced));
  }
  if (isNew && !core.contents.numbers().empty()) {
    core.log("the database was lost; all contents were kept", root,
             core.contents.recoverAll(core.seconds()));
  }
  repair(senseless + displaced == 0 && !isOutdated);
  // What was found out above must not be asked again of a mark that says otherwise.
  if (useMark_.machineStopped()) core.store.sync();
  useMark_.set();
}

bool Replica::Implementation::loadRecord(ItemRecord record) {
  const bool isRoot = record.rid == kRootRid;
  if (isRoot && !isRootRecord(record)) return false;
  if (!isRoot && (!remote::isValidName(record.name) || record.rid == record.parent)) return false;
  // Of contents that are here, their file tells.
  if (record.content == 0) record.size = std::min(record.size, kLargestSize);
  auto item = std::make_shared<Item>();
  static_cast<ItemRecord&>(*item) = std::move(record);
  // Two rows in one place: whichever has something that must not be lost keeps it, and the contents
  // of the other are left for the recovery area.
  const ItemPtr here =
      isRoot || item->removed ? nullptr : core.table.child(item->parent, item->name);
  if (here && !item->isPending()) return false;
  if (here) core.table.erase(here);
  core.table.add(item);
  return !here;
}

/// Whether what the provider is said to have of an item is what a listing of its folder could have
/// shown.
bool Replica::Implementation::isProper(const Item& item) const {
  if (item.rid == kRootRid || !item.base) return true;
  const ItemPtr folder = core.table.find(item.base->parent);
  return folder && folder->isFolder() && folder->base &&
         core.options.identifiers.isProper(item.base->identifier, folder->base->identifier,
                                           item.base->name) &&
         core.table.isWithinAtProvider(item, kRootRid);
}

/// A folder that the provider lost while something in it was being written has taken with it what
/// the provider had there.
void Replica::Implementation::forgetBasesWithoutFolder() {
  for (std::vector<ItemPtr> lost;; lost.clear()) {
    core.table.forEach([&](const ItemPtr& item) {
      if (item->rid == kRootRid || !item->base) return;
      const ItemPtr folder = core.table.find(item->base->parent);
      if (folder && folder->isFolder() && !folder->base) lost.push_back(item);
    });
    if (lost.empty()) return;
    for (const ItemPtr& item : lost) core.setBase(item, std::nullopt);
  }
}

/// Leaves out the items that the provider may not be asked for, and so what is in them. Their
/// contents are kept. Says how many there were.
std::size_t Replica::Implementation::leaveOutImproper() {
  std::size_t leftOut = 0;
  for (std::vector<ItemPtr> improper;; improper.clear()) {
    core.table.forEach([&](const ItemPtr& item) {
      if (!isProper(*item)) improper.push_back(item);
    });
    if (improper.empty()) return leftOut;
    if (leftOut == 0) core.log("rows of other places were left out, as of", *improper.front());
    leftOut += improper.size();
    for (const ItemPtr& item : improper) {
      core.dropContents(item, true);
      core.dropItem(item);
    }
  }
}

/// Items are missing: what was known of folders is no proof any more.
void Replica::Implementation::doubtFolders() {
  core.table.forEach([&](const ItemPtr& item) {
    if (!item->isFolder() || item->listedAt <= kListedLongAgo) return;
    item->listedAt = kListedLongAgo;
    core.save(item);
  });
}

/// Makes rows and files agree: a row without a file, a file without a row, an item without a
/// folder.
void Replica::Implementation::repair(bool isWhole) {
  std::unordered_set<ContentNumber> present;
  for (const ContentNumber number : core.contents.numbers()) present.insert(number);
  {
    Rows::Batch batch(core.rows);
    core.table.forEach([&](const ItemPtr& item) {
      if (item->content != 0) checkContents(item, present);
    });
    forgetBasesWithoutFolder();
    isWhole = leaveOutImproper() == 0 && isWhole;
    std::vector<ItemPtr> lost;
    core.table.forEach([&](const ItemPtr& item) {
      const ItemPtr folder = core.table.find(item->parent);
      const bool isInTree = folder && folder->isFolder() && core.table.isWithin(*item, kRootRid);
      const bool isEmpty = !item->isFolder() && item->content == 0;
      const bool isNothing = !item->base && (isEmpty || (item->removed && !item->sent));
      if (!isInTree || isNothing) lost.push_back(item);
    });
    for (const ItemPtr& item : lost) {
      core.log("belongs to no folder, or has nothing in it", *item);
      core.dropContents(item, !isWhole || item->contentsChanged || !item->base);
      core.dropItem(item);
    }
    if (!isWhole) doubtFolders();
  }
  core.rows.requireWritten();
  std::unordered_set<ContentNumber> orphans = std::move(present);
  core.table.forEach([&](const ItemPtr& item) {
    orphans.erase(item->content);
    if (item->sent) orphans.erase(item->sent->content);
  });
  settleOrphans(orphans, isWhole);
}

/// Decides whether an item's contents can be used as they are.
void Replica::Implementation::checkContents(const ItemPtr& item,
                                            const std::unordered_set<ContentNumber>& present) {
  struct stat status;
  const std::string path = core.contents.path(item->content);
  const bool isHere = present.contains(item->content) && ::stat(path.c_str(), &status) == 0;
  if (isHere && (item->contentsChanged || !item->base)) {
    item->size = status.st_size;
    const std::int64_t modified = nanoseconds(status.st_mtim);
    // Written to after its row was.
    if (modified != item->modified) {
      item->changed = std::max(item->changed, nanoseconds(status.st_ctim));
    }
    item->modified = modified;
    return;
  }
  // What can be fetched again was never synced.
  if (isHere && !useMark_.machineStopped() && status.st_size == item->size) return;
  if (!isHere) core.log("its contents are missing here", *item);
  core.contents.remove(item->content);
  item->content = 0;
  item->contentsChanged = false;
  if (item->base) {
    item->size = item->base->size;
    item->modified = modifiedOf(*item->base);
  }
  core.stamp(*item);
  core.save(item);
}

/// Contents that no row names have been given up, unless rows may be missing.
void Replica::Implementation::settleOrphans(const std::unordered_set<ContentNumber>& orphans,
                                            bool isWhole) {
  std::size_t kept = 0;
  for (const ContentNumber number : orphans) {
    struct stat status;
    if (::stat(core.contents.path(number).c_str(), &status) != 0) continue;
    if ((isWhole && !useMark_.machineStopped()) || status.st_size == 0) {
      core.contents.remove(number);
      continue;
    }
    // Rows that were never synced are mostly those of files that could be fetched again, which bear
    // old dates and give way to others.
    const std::int64_t at =
        isWhole ? std::min<std::int64_t>(status.st_mtim.tv_sec, core.seconds()) : core.seconds();
    core.contents.recover(number, {}, at);
    ++kept;
  }
  if (kept > 0) {
    core.log("contents without a name were kept in the recovery area", *core.table.find(kRootRid),
             std::to_string(kept));
  }
}

void Replica::Implementation::setProvider(
    std::shared_ptr<NSFileProviderReplicatedExtension> provider) {
  core.provider.setExtension(std::move(provider));
  std::lock_guard lock(core.mutex);
  health.begin();
}

void Replica::Implementation::stop() {
  {
    std::lock_guard lock(core.mutex);
    core.stopped = true;
    health.stop();
    sender.stop();
  }
  core.provider.stop();
}

}  // namespace kestrowan::replica
