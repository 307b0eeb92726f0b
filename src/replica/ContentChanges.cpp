#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "replica/Implementation.h"

namespace kestrowan::replica {

namespace {

using std::chrono::milliseconds;

/// Larger contents are copied for the history only where blocks can be shared.
constexpr std::int64_t kMostCopied = std::int64_t{64} << 20;

bool isOpenAs(const Item& item, const Contents& contents) {
  return !item.gone && item.contents.lock().get() == &contents;
}

}  // namespace

/// A copy of contents on its way to become an item's, or the history's; removed when it does not.
struct Replica::Implementation::Copy {
  explicit Copy(ContentFiles& contents) : store(contents) {}
  Copy(const Copy&) = delete;
  Copy& operator=(const Copy&) = delete;
  ~Copy() {
    if (number != 0) store.removeIfPossible(number);
  }
  ContentNumber keep() { return std::exchange(number, 0); }

  ContentFiles& store;
  ContentNumber number = 0;
  UniqueFd file;
  /// Milliseconds that making it took.
  std::int64_t cost = 0;
};

/// Makes the contents such that they may be changed: no longer those that are being sent, and noted
/// on disk as changed. What takes long is done while others can read.
void Replica::Implementation::prepareChange(const ItemPtr& item, Contents& contents) {
  std::lock_guard one(contents.preparing);
  UniqueFd file;
  std::uint64_t freezes = 0;
  bool frozen = false;
  {
    std::shared_lock still(contents.mutex);
    if (contents.noted && !contents.frozen && contents.versioned) return;
    frozen = contents.frozen;
    freezes = contents.freezes;
    file = UniqueFd(::fcntl(contents.file.get(), F_DUPFD_CLOEXEC, 0));
    if (!file) throw posixError(errno);
  }
  Copy copy(core.contents);
  Copy version(core.contents);
  if (!frozen) copyForHistory(item, contents, file.get(), version);
  if (frozen) {
    const auto begun = core.uptime();
    {
      std::lock_guard lock(core.mutex);
      copy.number = core.store.nextNumber();
    }
    copy.file = core.contents.clone(file.get(), copy.number);
    std::lock_guard lock(core.mutex);
    core.sync(item).copyTime = core.uptime() - begun;
  }
  // A copy takes the place of what a power failure must not take; and contents that could be
  // fetched again, and were never synced, become ones that replace the provider's.
  const bool synced = !contents.noted || (frozen && contents.promised);
  if (synced) {
    if (::fdatasync(frozen ? copy.file.get() : file.get()) != 0) throw posixError(errno);
    core.contents.syncNames();
  }

  std::lock_guard still(contents.mutex);
  // Whoever wants to write looks again.
  if (contents.frozen != frozen || contents.freezes != freezes) return;
  if (frozen && contents.promised && !synced) return;
  std::lock_guard lock(core.mutex);
  // An item that was given other contents, or is gone, has no part in what becomes of these.
  if (isOpenAs(*item, contents)) {
    noteChangedContents(item, contents, copy, version);
  } else if (frozen) {
    // The open file is all there is.
    contents.file = std::move(copy.file);
  }
  contents.frozen = false;
  contents.noted = true;
  contents.versioned = true;
}

/// The item's contents are changed from now on: those that it has, or the copy, if there is one.
void Replica::Implementation::noteChangedContents(const ItemPtr& item, Contents& contents,
                                                  Copy& copy, Copy& version) {
  const ContentNumber before = item->content;
  const bool wasChanged = item->contentsChanged;
  const bool isExchanged = copy.number != 0;
  const bool isLeft = isExchanged && !core.areNeeded(*item, before);
  {
    Rows::Batch batch(core.rows);
    if (version.number != 0) core.departures.keepCopy(*item, version.number, version.cost);
    if (isLeft) {
      core.departures.leaveVersion(*item, before, item->size, Departures::confirmedOf(*item));
    }
    if (isExchanged) item->content = copy.number;
    item->contentsChanged = true;
    core.save(item);
  }
  requireWritten([&] {
    if (version.number != 0) core.departures.takeBack(version.number);
    if (isLeft) core.departures.takeBack(before);
    item->content = before;
    item->contentsChanged = wasChanged;
    core.save(item);
  });
  version.keep();
  if (isExchanged) {
    contents.number = copy.keep();
    contents.file = std::move(copy.file);
  }
  item->lastWrite = core.uptime();
  if (item->isPending()) sender.changed(item, Sender::kQuietTime);
}

/// Copies what is about to be changed in place, where that costs little enough. Throws when what
/// the provider never had could be kept, and was not.
void Replica::Implementation::copyForHistory(const ItemPtr& item, const Contents& contents,
                                             int file, Copy& copy) {
  const auto begun = core.uptime();
  ContentNumber number = 0;
  bool isOnlyHere = false;
  {
    std::lock_guard lock(core.mutex);
    if (!isOpenAs(*item, contents) || !core.departures.isCopyDue(*item)) return;
    isOnlyHere = Departures::confirmedOf(*item) == Confirmed::never;
    number = core.store.nextNumber();
  }
  try {
    if (core.contents.cloneCheaply(file, number, kMostCopied)) copy.number = number;
  } catch (const NSError&) {
    if (isOnlyHere) throw;
  }
  copy.cost = core.uptime() - begun;
}

void Replica::Implementation::noteChange(const ItemPtr& item, const Contents& contents) {
  std::lock_guard lock(core.mutex);
  if (!item->gone && !isOpenAs(*item, contents)) return;
  noteDates(*item, contents.file.get());
  if (item->dropPrivileges()) {
    core.itemChanged(item->rid, false);
    if (!item->gone) core.save(item);
  }
  item->lastWrite = core.uptime();
  core.tally.note(*item);
}

/// Shows the size and the dates of contents that were changed.
void Replica::Implementation::noteDates(Item& item, int file) {
  struct stat status;
  if (::fstat(file, &status) != 0) return;
  item.size = status.st_size;
  item.modified = nanoseconds(status.st_mtim);
  item.changed = laterThan(item.changed, nanoseconds(status.st_ctim));
  item.datesAreUnwritten = true;
}

/// Makes the item's contents empty, without a look at what they were.
void Replica::Implementation::emptyContents(const ItemPtr& item) {
  for (;;) {
    std::shared_ptr<Contents> open;
    {
      std::lock_guard lock(core.mutex);
      open = item->contents.lock();
    }
    std::unique_lock<std::shared_mutex> still;
    if (open) still = std::unique_lock(open->mutex);
    std::lock_guard lock(core.mutex);
    if (item->gone) throw posixError(ESTALE);
    if (item->contents.lock() != open) continue;
    const ContentNumber before = item->content;
    const bool wasChanged = item->contentsChanged;
    const std::int64_t size = item->size;
    const std::int64_t modified = item->modified;
    const ContentNumber number = core.store.nextNumber();
    UniqueFd file = core.contents.create(number);
    const bool isLeft = before != 0 && !core.areNeeded(*item, before);
    {
      Rows::Batch batch(core.rows);
      if (isLeft) core.departures.leaveVersion(*item, before, size, Departures::confirmedOf(*item));
      item->content = number;
      item->contentsChanged = true;
      noteDates(*item, file.get());
      if (item->dropPrivileges()) core.itemChanged(item->rid, false);
      item->lastWrite = core.uptime();
      core.save(item);
    }
    requireWritten([&] {
      if (isLeft) core.departures.takeBack(before);
      item->content = before;
      item->contentsChanged = wasChanged;
      item->size = size;
      item->modified = modified;
      core.save(item);
      core.contents.remove(number);
    });
    if (open) {
      open->file = std::move(file);
      open->number = number;
      open->frozen = false;
      open->noted = true;
      open->versioned = true;
    }
    if (item->isPending()) {
      sender.changed(item, item->writers > 0 ? Sender::kQuietTime : core.options.sendDelay);
    }
    return;
  }
}

}  // namespace kestrowan::replica
