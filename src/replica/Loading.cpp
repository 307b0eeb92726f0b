#include <sys/stat.h>

#include <unordered_set>
#include <utility>
#include <vector>

#include "replica/Implementation.h"
#include "replica/NameRules.h"

namespace kestrowan::replica {

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
/// Until the provider was asked the root may be read and written.
constexpr NSFileProviderItemCapabilities kRootCapabilities =
    NSFileProviderItemCapability::allowsReading | NSFileProviderItemCapability::allowsWriting;

}  // namespace

Replica::Implementation::Implementation(Replica& replica, const std::string& directory, Loop& loop,
                                        Options options)
    : core(directory, loop, std::move(options)),
      health(core,
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
      replica_(replica) {
  load();
  sender.restore();
  fetcher.watchLimits();
}

void Replica::Implementation::load() {
  const std::size_t skipped =
      core.store.load([this](ItemRecord record) { loadRecord(std::move(record)); });
  if (!core.table.find(kRootRid)) {
    auto root = std::make_shared<Item>();
    root->rid = kRootRid;
    root->parent = kRootRid;
    root->kind = ItemKind::folder;
    root->modified = core.milliseconds() * 1'000'000;
    root->base = Base{.identifier = std::string(NSFileProviderRootContainerItemIdentifier),
                      .parent = kRootRid,
                      .capabilities = kRootCapabilities};
    core.table.add(root);
    core.save(root);
  }
  if (skipped > 0) {
    core.log("rows that make no sense were left out", *core.table.find(kRootRid),
             std::to_string(skipped));
  }
  repair();
}

void Replica::Implementation::loadRecord(ItemRecord record) {
  const bool isRoot = record.rid == kRootRid;
  if (!isRoot && (!isValidName(record.name) || record.rid == record.parent)) return;
  auto item = std::make_shared<Item>();
  static_cast<ItemRecord&>(*item) = std::move(record);
  // Two rows in one place: whichever has something that must not be lost keeps it.
  const ItemPtr here =
      isRoot || item->removed ? nullptr : core.table.child(item->parent, item->name);
  if (here && item->isPending()) {
    core.table.detach(here);
    core.table.erase(here);
  } else if (here) {
    return;
  }
  core.table.add(item);
}

/// Makes rows and files agree: a row without a file, a file without a row, an item without a
/// folder.
void Replica::Implementation::repair() {
  std::unordered_set<ContentNumber> wanted;
  std::vector<ItemPtr> lost;
  std::unordered_set<ContentNumber> present;
  for (const ContentNumber number : core.contents.numbers()) present.insert(number);
  core.table.forEach([&](const ItemPtr& item) {
    const ItemPtr folder = core.table.find(item->parent);
    if (!folder || !folder->isFolder() || !core.table.isWithin(*item, kRootRid)) {
      lost.push_back(item);
    }
    if (item->sent && item->sent->content != 0) wanted.insert(item->sent->content);
    if (item->content == 0) return;
    struct stat status;
    if (!present.contains(item->content) ||
        ::stat(core.contents.path(item->content).c_str(), &status) != 0) {
      core.log("its contents are missing here", *item);
      item->content = 0;
      item->contentsChanged = false;
      core.save(item);
      if (!item->base) lost.push_back(item);
      return;
    }
    wanted.insert(item->content);
    if (item->contentsChanged) {
      item->size = status.st_size;
      item->modified = status.st_mtim.tv_sec * kSecond + status.st_mtim.tv_nsec;
    }
  });
  ItemStore::Transaction transaction(core.store);
  for (const ItemPtr& item : lost) {
    if (item->gone) continue;
    core.log("belongs to no folder", *item);
    core.dropContents(item, item->contentsChanged);
    core.dropItem(item);
  }
  transaction.commit();
  for (const ContentNumber number : present) {
    if (!wanted.contains(number)) core.contents.remove(number);
  }
}

void Replica::Implementation::setProvider(
    std::shared_ptr<NSFileProviderReplicatedExtension> provider) {
  core.provider.setProvider(std::move(provider));
  std::lock_guard lock(core.mutex);
  health.begin();
}

void Replica::Implementation::stop() {
  {
    std::lock_guard lock(core.mutex);
    core.stopped = true;
    sender.stop();
  }
  core.provider.stop();
}

}  // namespace kestrowan::replica
