#include "replica/Departures.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/foundation/CaughtError.h"
#include "platform/foundation/Logger.h"
#include "replica/Core.h"

namespace kestrowan::replica {

namespace {

constexpr std::chrono::milliseconds kRetirement{5000};
constexpr std::int64_t kGibibyte = std::int64_t{1} << 30;
/// Milliseconds.
constexpr std::int64_t kFreshTime = 60'000;

const Logger& replicaLog() {
  static const Logger log("com.kestrowan.app.FileProvider", "replica");
  return log;
}

/// Whether the item's contents are a version to be kept. What was not written just now is no part
/// of a quick succession, whatever had the name before.
bool isVersionDue(const Item& item, const VersionPace& pace, const std::string& path,
                  std::int64_t now) {
  const bool isFresh = item.lastWrite != 0 && now - item.lastWrite < kFreshTime;
  return !isFresh || pace.isDue(path, now);
}

}  // namespace

Departures::Departures(Core& core) : core_(core), history_(core.store) {}

std::unordered_set<ContentNumber> Departures::load(
    const std::unordered_set<ContentNumber>& present) {
  const auto capacity = core_.contents.space().capacity;
  history_.setLimit(core_.options.historyLimit > 0 ? core_.options.historyLimit
                                                   : std::min(10 * kGibibyte, capacity / 20));
  return history_.load(present);
}

Confirmed Departures::confirmedOf(const Item& item) {
  if (!item.contentsChanged) return Confirmed::once;
  return item.localOnly ? Confirmed::notSent : Confirmed::never;
}

HistoryEntry Departures::entryOf(const Item& item, HistoryReason reason) const {
  HistoryEntry entry;
  entry.content = item.content;
  entry.item = item.rid;
  entry.path = core_.table.path(item);
  entry.confirmed = confirmedOf(item);
  if (item.base && entry.confirmed == Confirmed::once) entry.version = item.base->version;
  entry.size = item.size;
  entry.modified = item.modified;
  entry.reason = reason;
  entry.at = core_.seconds();
  return entry;
}

void Departures::keep(HistoryEntry entry) {
  history_.noteKept(entry);
  core_.rows.keep(std::move(entry));
}

void Departures::leaveWith(const ItemPtr& item, HistoryReason reason) {
  if (item->content == 0 || item->size == 0 || item->sizeInHistory) return;
  auto entry = entryOf(*item, reason);
  if (reason == HistoryReason::replaced) {
    if (!isVersionDue(*item, history_.pace(), entry.path, core_.uptime())) return;
    history_.pace().noteKept(entry.path, core_.uptime());
  }
  keep(std::move(entry));
  item->sizeInHistory = item->size;
}

void Departures::leave(const ItemPtr& item, HistoryReason reason) {
  leaveWith(item, reason);
  release(item);
  item->contentsChanged = false;
}

void Departures::release(const ItemPtr& item) {
  const ContentNumber number = std::exchange(item->content, 0);
  const auto kept = std::exchange(item->sizeInHistory, std::nullopt);
  if (number == 0) return;
  if (!kept) {
    retire(number);
  } else if (*kept != item->size) {
    // A program that had it open wrote on.
    try {
      history_.resize(number, item->size);
    } catch (const NSError& error) {
      core_.log("its size in the history stays what it was", *item, error.localizedDescription());
    }
  }
}

void Departures::leaveVersion(const Item& item, ContentNumber content, std::int64_t size,
                              Confirmed confirmed) {
  if (content == 0 || isKept(content)) return;
  auto entry = entryOf(item, HistoryReason::replaced);
  if (size == 0 || !isVersionDue(item, history_.pace(), entry.path, core_.uptime())) {
    retire(content);
    return;
  }
  history_.pace().noteKept(entry.path, core_.uptime());
  entry.content = content;
  entry.size = size;
  entry.confirmed = confirmed;
  if (confirmed == Confirmed::once && item.base) entry.version = item.base->version;
  keep(std::move(entry));
}

bool Departures::isCopyDue(const Item& item) {
  return !item.gone && item.size > 0 &&
         history_.pace().isDue(core_.table.path(item), core_.uptime());
}

void Departures::keepCopy(const Item& item, ContentNumber copy, std::int64_t cost) {
  auto entry = entryOf(item, HistoryReason::replaced);
  history_.pace().noteKept(entry.path, core_.uptime(), cost);
  entry.content = copy;
  keep(std::move(entry));
}

void Departures::takeBack(ContentNumber content) {
  if (const auto entry = core_.rows.takeBack(content)) {
    history_.noteGone(*entry);
    history_.pace().forget(entry->path);
  }
  std::erase(retired_, content);
}

/// Whether the history has the contents already.
bool Departures::isKept(ContentNumber content) {
  return core_.rows.isKeeping(content) || history_.find(content);
}

void Departures::requireRoom() const {
  if (history_.isFull()) throw posixError(ENOSPC);
}

void Departures::retire(ContentNumber number) {
  if (isKept(number)) return;
  retired_.push_back(number);
  if (retired_.size() == 1) core_.loop.postAfter(kRetirement, [this] { removeRetired(); });
}

void Departures::removeRetired() {
  std::vector<ContentNumber> numbers;
  try {
    {
      std::lock_guard lock(core_.mutex);
      core_.rows.requireWritten();
      numbers.swap(retired_);
    }
    removeFiles(numbers);
  } catch (const NSError& error) {
    replicaLog().error("contents stay that nobody needs: %{public}s",
                       {error.localizedDescription()});
    {
      std::lock_guard lock(core_.mutex);
      retired_.insert(retired_.end(), numbers.begin(), numbers.end());
    }
    core_.loop.postAfter(kRetirement, [this] { removeRetired(); });
  }
}

void Departures::removeFiles(const std::vector<ContentNumber>& numbers) {
  if (numbers.empty()) return;
  core_.store.sync();
  for (const ContentNumber number : numbers) core_.contents.remove(number);
}

std::vector<HistoryEntry> Departures::remove(std::vector<HistoryEntry> entries) {
  if (entries.empty()) return entries;
  {
    std::lock_guard lock(core_.mutex);
    std::erase_if(entries, [this](const auto& entry) { return !history_.find(entry.content); });
    history_.remove(entries);
  }
  std::vector<ContentNumber> numbers;
  numbers.reserve(entries.size());
  for (const auto& entry : entries) numbers.push_back(entry.content);
  removeFiles(numbers);
  return entries;
}

/// Whether an item in the entry's place at the provider has the entry's contents.
bool Departures::isStillAtProvider(const HistoryEntry& entry) const {
  if (entry.version.empty() || !entry.path.starts_with('/')) return false;
  ItemPtr at = core_.table.find(kRootRid);
  for (std::size_t begin = 1; at && begin <= entry.path.size();) {
    const std::size_t end = std::min(entry.path.find('/', begin), entry.path.size());
    at = core_.table.serverChild(at->rid, std::string_view(entry.path).substr(begin, end - begin));
    begin = end + 1;
  }
  return at && at->base && at->base->versionKnown && at->base->version == entry.version &&
         at->base->size == entry.size;
}

void Departures::trim() {
  const auto space = core_.contents.space();
  const auto floor = core_.options.freeSpaceFloor > 0 ? core_.options.freeSpaceFloor
                                                      : freeSpaceFloor(space.capacity);
  const auto missing = std::max<std::int64_t>(floor - space.free, 0);
  std::shared_ptr<HistoryTrim> run;
  {
    std::lock_guard lock(core_.mutex);
    if (std::exchange(isTrimming_, true)) return;
    const auto time = std::chrono::duration_cast<std::chrono::seconds>(core_.options.historyTime);
    // What keeps the disk from having free what it must have is too much, too.
    const auto room = std::max<std::int64_t>(history_.usage().bytes - missing, 0);
    run = std::make_shared<HistoryTrim>(
        history_.beginTrim(std::min(history_.limit(), room), core_.seconds() - time.count(),
                           [this](const HistoryEntry& entry) { return isStillAtProvider(entry); }));
  }
  trimOn(run);
}

void Departures::trimOn(const std::shared_ptr<HistoryTrim>& run) {
  try {
    std::vector<HistoryEntry> toGo;
    {
      std::lock_guard lock(core_.mutex);
      isTrimming_ = !run->isDone() && !core_.stopped;
      if (!isTrimming_) return;
      // A row that waits to be written must not follow its removal.
      core_.rows.requireWritten();
      toGo = run->step(history_.usage());
    }
    remove(std::move(toGo));
  } catch (...) {
    const auto error = caughtError();
    std::lock_guard lock(core_.mutex);
    isTrimming_ = false;
    core_.log("the history cannot be kept within its limits", *core_.table.find(kRootRid),
              error.localizedDescription());
    return;
  }
  core_.loop.post([this, run] { trimOn(run); });
}

}  // namespace kestrowan::replica
