#include <sys/stat.h>

#include <algorithm>
#include <unordered_set>
#include <utility>
#include <vector>

#include "replica/Implementation.h"
#include "replica/NameRules.h"
#include "replica/remote/ValidName.h"
#include "replica/store/FormerRecovery.h"

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
      directory_(directory),
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
  core.departures.removeRetired();
  try {
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
  isLost_ = isNew && !core.contents.numbers().empty();
  if (isLost_) {
    core.log("the database was lost; all contents were kept in the history", root);
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
  // of the other are left for the history.
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
      core.dropItem(item, HistoryReason::found);
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
      core.dropItem(item, HistoryReason::found);
    }
    if (!isWhole) doubtFolders();
  }
  core.rows.requireWritten();
  std::unordered_set<ContentNumber> orphans = std::move(present);
  core.table.forEach([&](const ItemPtr& item) { orphans.erase(item->content); });
  for (const ContentNumber number : core.departures.load(orphans)) {
    orphans.erase(number);
    if (useMark_.machineStopped()) checkSizeInHistory(number);
  }
  core.table.forEach([&](const ItemPtr& item) {
    if (item->sent) orphans.erase(item->sent->content);
  });
  settleOrphans(orphans, isWhole);
  takeOverFormerRecovery();
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

/// What was never synced may be less than its row says.
void Replica::Implementation::checkSizeInHistory(ContentNumber number) {
  struct stat status;
  if (::stat(core.contents.path(number).c_str(), &status) != 0) return;
  core.departures.history().resize(number, status.st_size);
}

/// Contents that no row names were given up, or never became an item's, unless rows may be missing.
void Replica::Implementation::settleOrphans(const std::unordered_set<ContentNumber>& orphans,
                                            bool isWhole) {
  const auto reason = isLost_ ? HistoryReason::lost : HistoryReason::found;
  const bool isGivenUp = isWhole && !useMark_.machineStopped();
  std::size_t kept = 0;
  {
    Rows::Batch batch(core.rows);
    for (const ContentNumber number : orphans) {
      struct stat status;
      if (::stat(core.contents.path(number).c_str(), &status) != 0) continue;
      if (status.st_size == 0) {
        core.contents.remove(number);
        continue;
      }
      HistoryEntry entry;
      entry.content = number;
      entry.size = status.st_size;
      entry.modified = nanoseconds(status.st_mtim);
      entry.at =
          isWhole ? std::min<std::int64_t>(status.st_mtim.tv_sec, core.seconds()) : core.seconds();
      entry.reason = reason;
      entry.confirmed = isGivenUp ? Confirmed::once : Confirmed::never;
      core.departures.keep(std::move(entry));
      ++kept;
    }
  }
  if (kept > 0) {
    core.log("contents without a name were kept in the history", *core.table.find(kRootRid),
             std::to_string(kept));
  }
}

/// Makes what an earlier version kept in a folder of its own part of the history. Rows come first:
/// a file that stays behind is taken over at the next start.
void Replica::Implementation::takeOverFormerRecovery() {
  const auto files = formerRecovery(directory_);
  if (files.empty()) {
    removeFormerRecovery(directory_);
    return;
  }
  std::vector<HistoryEntry> entries;
  for (const FormerFile& file : files) {
    HistoryEntry entry;
    entry.content = core.store.nextNumber();
    entry.path = file.name;
    entry.reason = file.isOfLostDatabase ? HistoryReason::lost : HistoryReason::found;
    entry.size = file.size;
    entry.modified = file.modified;
    entry.at = std::clamp(file.at, kFirstDate, kLastDate);
    entries.push_back(std::move(entry));
  }
  {
    Rows::Batch batch(core.rows);
    for (const HistoryEntry& entry : entries) core.departures.keep(entry);
  }
  core.rows.requireWritten();
  core.store.sync();
  const Item& root = *core.table.find(kRootRid);
  std::vector<HistoryEntry> left;
  for (std::size_t at = 0; at < files.size(); ++at) {
    try {
      core.contents.adopt(entries[at].content, files[at].path);
    } catch (const NSError& error) {
      core.log("cannot be taken into the history", root, error.localizedDescription());
      left.push_back(entries[at]);
    }
  }
  core.departures.history().remove(left);
  core.contents.syncNames();
  removeFormerRecovery(directory_);
  core.log("what an earlier version had kept is in the history", root,
           std::to_string(files.size() - left.size()));
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
