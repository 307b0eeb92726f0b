#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "replica/Implementation.h"

namespace kestrowan::replica {

namespace {

using std::chrono::milliseconds;

/// A copy of contents on its way to become an item's; removed when it does not.
struct Copy {
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
};

bool isOpenAs(const Item& item, const Contents& contents) {
  return !item.gone && item.contents.lock().get() == &contents;
}

}  // namespace

/// Makes the contents such that they may be changed: no longer those that are being sent, and noted
/// on disk as changed. What takes long is done while others can read.
void Replica::Implementation::prepareChange(const ItemPtr& item, Contents& contents) {
  std::lock_guard one(contents.preparing);
  UniqueFd file;
  std::uint64_t freezes = 0;
  bool frozen = false;
  {
    std::shared_lock still(contents.mutex);
    if (contents.noted && !contents.frozen) return;
    frozen = contents.frozen;
    freezes = contents.freezes;
    file = UniqueFd(::fcntl(contents.file.get(), F_DUPFD_CLOEXEC, 0));
    if (!file) throw posixError(errno);
  }
  Copy copy(core.contents);
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
    const ContentNumber before = item->content;
    const bool wasChanged = item->contentsChanged;
    if (frozen) item->content = copy.number;
    item->contentsChanged = true;
    core.save(item);
    requireWritten([&] {
      item->content = before;
      item->contentsChanged = wasChanged;
      core.save(item);
    });
    if (frozen) {
      contents.number = copy.keep();
      contents.file = std::move(copy.file);
      if (!core.areNeeded(*item, before)) core.retire(before);
    }
    item->lastWrite = core.uptime();
    if (item->isPending()) sender.changed(item, Sender::kQuietTime);
  } else if (frozen) {
    // The open file is all there is.
    contents.file = std::move(copy.file);
  }
  contents.frozen = false;
  contents.noted = true;
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
    item->content = number;
    item->contentsChanged = true;
    noteDates(*item, file.get());
    if (item->dropPrivileges()) core.itemChanged(item->rid, false);
    item->lastWrite = core.uptime();
    core.save(item);
    requireWritten([&] {
      item->content = before;
      item->contentsChanged = wasChanged;
      item->size = size;
      item->modified = modified;
      core.save(item);
      core.contents.remove(number);
    });
    if (before != 0 && !core.areNeeded(*item, before)) core.retire(before);
    if (open) {
      open->file = std::move(file);
      open->number = number;
      open->frozen = false;
      open->noted = true;
    }
    if (item->isPending()) {
      sender.changed(item, item->writers > 0 ? Sender::kQuietTime : core.options.sendDelay);
    }
    return;
  }
}

}  // namespace kestrowan::replica
