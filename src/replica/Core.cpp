#include "replica/Core.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

namespace kestrowan::replica {

namespace {

constexpr std::int64_t kNanoseconds = 1'000'000'000;

const Logger& replicaLog() {
  static const Logger log("com.kestrowan.app.FileProvider", "replica");
  return log;
}

}  // namespace

std::int64_t nanoseconds(const timespec& time) {
  return time.tv_sec * kNanoseconds + time.tv_nsec;
}

std::int64_t laterThan(std::int64_t before, std::int64_t now) {
  if (now > before) return now;
  return before == std::numeric_limits<std::int64_t>::max() ? before : before + 1;
}

std::int64_t modifiedOf(const Base& base) {
  using Limits = std::numeric_limits<std::int64_t>;
  const std::int64_t date = base.date.value_or(0);
  if (date > Limits::max() / kNanoseconds) return Limits::max();
  if (date < Limits::min() / kNanoseconds) return Limits::min();
  return date * kNanoseconds;
}

Core::Core(const std::string& directory, async::Loop& usedLoop, Options usedOptions)
    : options(std::move(usedOptions)),
      loop(usedLoop),
      store(directory),
      contents(directory),
      provider(loop, {options.metadataCalls, options.downloads, options.uploads},
               options.identifiers),
      rows(store, loop, mutex),
      places(options.openFiles),
      random(std::random_device()()) {}

ItemPtr Core::require(Rid rid) const {
  auto item = table.find(rid);
  if (!item) throw posixError(ESTALE);
  return item;
}

ItemPtr Core::requireFolder(Rid rid) const {
  auto item = require(rid);
  if (item->gone || item->removed) throw posixError(ESTALE);
  if (!item->isFolder()) throw posixError(ENOTDIR);
  return item;
}

void Core::requireNewWork() const {
  if (refusesNewWork) throw posixError(EROFS);
}

bool Core::mayWrite(const Item& item) const {
  return !item.base || (item.base->capabilities & NSFileProviderItemCapability::allowsWriting) != 0;
}

Attributes Core::attributes(const Item& item) const {
  Attributes result;
  result.rid = item.rid;
  result.kind = item.kind;
  if (item.gone || item.removed) {
    result.links = 0;
  } else if (item.isFolder()) {
    result.links = 2 + static_cast<std::uint32_t>(table.folderCount(item.rid));
  }
  result.size = item.isFolder() ? 0 : item.size;
  result.content = item.content;
  result.modified = item.modified;
  result.accessed = item.accessed ? *item.accessed : item.modified;
  result.changed = item.changed;
  constexpr std::uint16_t kWriting = 0222;
  result.mode = item.mode.value_or(item.isFolder() ? 0755 : 0644);
  if (!mayWrite(item)) result.mode &= static_cast<std::uint16_t>(~kWriting);
  return result;
}

ItemPtr Core::makeItem(Rid parent, std::string name, ItemKind kind) {
  auto item = std::make_shared<Item>();
  item->rid = store.nextNumber();
  item->parent = parent;
  item->name = std::move(name);
  item->kind = kind;
  item->modified = nanoseconds();
  item->changed = item->modified;
  item->lastUse = seconds();
  return item;
}

FolderRuntime& Core::folder(const ItemPtr& item) {
  if (!item->folder) item->folder = std::make_unique<FolderRuntime>();
  return *item->folder;
}

SyncRuntime& Core::sync(const ItemPtr& item) {
  if (!item->sync) item->sync = std::make_unique<SyncRuntime>();
  return *item->sync;
}

bool Core::areNeeded(const Item& item, ContentNumber number) const {
  return number != 0 && ((item.sync && item.sync->frozen == number) ||
                         (item.sent && item.sent->content == number));
}

void Core::forgetSent(const ItemPtr& item) {
  if (!item->sent) return;
  const ContentNumber number = item->sent->content;
  const std::int64_t size = item->sent->size;
  item->sent.reset();
  if (number == item->content || areNeeded(*item, number)) return;
  departures.leaveVersion(*item, number, size, Confirmed::never);
}

void Core::dropItem(const ItemPtr& item, HistoryReason reason) {
  Rows::Batch batch(rows);
  forgetSent(item);
  stamp(*item);
  departures.leaveWith(item, reason);
  table.detach(item);
  tally.note(*item);
  rows.remove(item->rid);
  if (dropped) dropped(item);
  releaseIfUnused(item);
}

void Core::releaseIfUnused(const ItemPtr& item) {
  if (!item->gone || item->handles > 0 || item->isSending()) return;
  if (item->lookups > 0 && item->isLeftOver()) return;
  departures.release(item);
  if (item->lookups == 0) table.erase(item);
}

void Core::setBase(const ItemPtr& item, std::optional<Base> base) {
  const std::string before = item->base ? item->base->identifier : std::string();
  Rows::Batch batch(rows);
  table.setBase(item, std::move(base));
  save(item);
  const std::string after = item->base ? item->base->identifier : std::string();
  if (!item->isFolder() || before.empty() || after.empty() || before == after) return;

  const std::string prefix = before + "/";
  std::vector<ItemPtr> below = table.serverChildren(item->rid);
  while (!below.empty()) {
    const ItemPtr child = below.back();
    below.pop_back();
    // Only with its parent does a child's identifier change, and only when it is made of it.
    if (!child->base->identifier.starts_with(prefix)) continue;
    child->base->identifier.replace(0, before.size(), after);
    save(child);
    const auto further = table.serverChildren(child->rid);
    below.insert(below.end(), further.begin(), further.end());
  }
}

void Core::noteFolderChange(Rid rid) {
  const ItemPtr item = table.find(rid);
  if (!item || item->gone) return;
  item->modified = laterThan(item->modified, nanoseconds());
  stamp(*item);
  save(item);
}

void Core::showFolderChange(Rid rid) {
  noteFolderChange(rid);
  itemChanged(rid, false);
}

void Core::moveInView(const ItemPtr& item, Rid parent, std::string name) {
  const Rid before = item->parent;
  entryChanged(before, item->name);
  table.place(item, parent, std::move(name));
  stamp(*item);
  save(item);
  showFolderChange(before);
  if (parent != before) showFolderChange(parent);
  entryChanged(parent, item->name);
}

void Core::doubtFolderDate(Rid rid) {
  const ItemPtr item = table.find(rid);
  if (!item || item->gone || !item->base || rid == kRootRid) return;
  confirm(item);
  if (!item->base->date) return;
  item->base->date.reset();
  save(item);
}

bool Core::isBeingSentTo(Rid folderRid, std::string_view name) const {
  return std::any_of(sending.begin(), sending.end(),
                     [&](const ItemPtr& item) {
                       return item->sync->targetParent == folderRid &&
                              item->sync->targetName == name;
                     }) ||
         unsettledAt(folderRid, name);
}

ItemPtr Core::unsettledAt(Rid folderRid, std::string_view name) const {
  const auto found = std::find_if(unsettled.begin(), unsettled.end(), [&](const ItemPtr& item) {
    return !item->gone && item->sent && item->sent->parent == folderRid && item->sent->name == name;
  });
  return found == unsettled.end() ? nullptr : *found;
}

void Core::entryChanged(Rid folderRid, const std::string& name) {
  if (observer) observer->entryChanged(folderRid, name);
}

void Core::itemChanged(Rid item, bool withContents) {
  if (observer) observer->itemChanged(item, withContents);
}

void Core::log(std::string_view what, const Item& item, std::string_view detail) const {
  // Limits count the messages of one form, and those of another kind are not to count with them.
  const auto form = std::string(what) + ": %{public}s %{public}s";
  replicaLog().error(form, {table.path(item), detail});
}

}  // namespace kestrowan::replica
