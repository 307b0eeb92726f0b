#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "replica/ErrorClass.h"
#include "replica/Implementation.h"

namespace kestrowan::replica {

namespace {

using std::chrono::milliseconds;

constexpr std::int64_t kSecond = 1'000'000'000;
/// How long `close` and `fsync` wait for the provider, when they are to.
constexpr milliseconds kContentsWait{10 * 60 * 1000};

void setFileModified(const std::string& path, std::int64_t modified) {
  std::int64_t rest = modified % kSecond;
  if (rest < 0) rest += kSecond;
  const timespec times[2] = {{0, UTIME_OMIT},
                             {static_cast<time_t>((modified - rest) / kSecond), rest}};
  if (::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
    throw posixError(errno);
  }
}

}  // namespace

void Replica::Implementation::openFile(Rid rid, OpenMode mode,
                                       Completion<std::shared_ptr<OpenFile>> completion) {
  ItemPtr item;
  ItemPtr folder;
  {
    std::lock_guard lock(core.mutex);
    item = core.require(rid);
    if (item->gone && !item->isLeftOver()) throw posixError(ESTALE);
    if (item->isFolder()) throw posixError(EISDIR);
    if (mode.write) core.requireNewWork();
    if (mode.write && !core.mayWrite(*item)) throw posixError(EACCES);
    if (item->base && !item->removed && !item->gone) folder = core.table.find(item->base->parent);
  }
  auto open = [this, item, mode, completion = std::move(completion)](const Outcome<Done>&) {
    if (mode.truncate) {
      finishOpen(item, mode, completion);
      return;
    }
    // Does nothing for contents that are here.
    fetcher.fetch(item, [this, item, mode, completion](const Outcome<Done>& fetched) {
      if (fetched.succeeded()) {
        finishOpen(item, mode, completion);
      } else {
        explain(item, fetched.error(), completion);
      }
    });
  };
  if (!mode.truncate) fetcher.walked(item);
  // Whoever opens a file wants to see what others closed before.
  if (folder) {
    lister.prepare(folder, Lister::Need::fresh, std::move(open));
  } else {
    open(Done{});
  }
}

/// Fails a call on an item whose error leaves open what is wrong only after a look at its folder.
void Replica::Implementation::explain(const ItemPtr& item, const NSError& error,
                                      const Completion<std::shared_ptr<OpenFile>>& completion) {
  const ErrorClass kind = errorClass(error);
  ItemPtr folder;
  if (kind == ErrorClass::ambiguous || kind == ErrorClass::gone) {
    std::lock_guard lock(core.mutex);
    if (item->base) folder = core.table.find(item->base->parent);
  }
  if (!folder) {
    completion(error);
    return;
  }
  lister.prepare(folder, Lister::Need::forced,
                 [this, item, error, completion](const Outcome<Done>& listed) {
                   bool isGone = false;
                   {
                     std::lock_guard lock(core.mutex);
                     isGone = item->gone || !item->base;
                   }
                   if (!listed.succeeded()) {
                     completion(listed.error());
                   } else {
                     completion(isGone ? posixError(ESTALE) : error);
                   }
                 });
}

void Replica::Implementation::finishOpen(const ItemPtr& item, OpenMode mode,
                                         const Completion<std::shared_ptr<OpenFile>>& completion) {
  std::shared_ptr<OpenFile> file;
  try {
    if (mode.truncate) emptyContents(item);
    std::lock_guard lock(core.mutex);
    if (item->gone && !item->isLeftOver()) throw posixError(ESTALE);
    file = open(item, mode.write);
  } catch (const NSError& error) {
    completion(error);
    return;
  }
  completion(std::move(file));
}

std::shared_ptr<OpenFile> Replica::Implementation::open(const ItemPtr& item, bool writable) {
  auto contents = item->contents.lock();
  if (!contents) {
    contents = std::make_shared<Contents>();
    contents->file = core.contents.open(item->content);
    contents->number = item->content;
    contents->frozen = core.areNeeded(*item, item->content);
    contents->noted = item->contentsChanged;
    contents->promised = item->contentsChanged;
    item->contents = contents;
  }
  item->lastUse = core.seconds();
  ++item->handles;
  if (writable) ++item->writers;
  return std::make_shared<OpenFile>(replica_, item, std::move(contents), writable);
}

void Replica::Implementation::closed(const OpenFile& file) {
  std::lock_guard lock(core.mutex);
  const ItemPtr& item = file.item();
  --item->handles;
  if (file.isWritable()) {
    --item->writers;
    // Also what was created and never written.
    if (item->writers == 0 && item->isPending() && !item->removed) {
      if (item->contentsChanged || item->mustCreate()) {
        sender.changed(item, core.options.sendDelay);
      }
    }
  }
  core.releaseIfUnused(item);
}

/// Makes the contents such that they may be changed: no longer those that are being sent, and noted
/// on disk as changed.
void Replica::Implementation::prepareChange(const ItemPtr& item, Contents& contents) {
  std::lock_guard still(contents.mutex);
  UniqueFd copy;
  ContentNumber number = 0;
  if (contents.frozen) {
    {
      std::lock_guard lock(core.mutex);
      number = core.store.nextNumber();
    }
    copy = core.contents.clone(contents.file.get(), number);
  }
  // A copy takes the place of what a power failure must not take; and contents that could be
  // fetched again, and were never synced, become ones that replace the provider's.
  if (copy ? contents.promised || !contents.noted : !contents.noted) {
    if (::fdatasync(copy ? copy.get() : contents.file.get()) != 0) {
      const int error = errno;
      if (copy) core.contents.remove(number);
      throw posixError(error);
    }
    core.contents.syncNames();
  }
  std::lock_guard lock(core.mutex);
  if (item->gone) {
    // Nobody will ask for these contents again; the open file is all there is.
    if (copy) {
      contents.file = std::move(copy);
      core.contents.remove(number);
    }
  } else {
    const ContentNumber before = item->content;
    const bool wasChanged = item->contentsChanged;
    if (copy) item->content = number;
    item->contentsChanged = true;
    try {
      core.save(item);
    } catch (const NSError&) {
      item->content = before;
      item->contentsChanged = wasChanged;
      if (copy) core.contents.remove(number);
      throw;
    }
    if (copy) {
      contents.file = std::move(copy);
      contents.number = number;
      if (!core.areNeeded(*item, before)) core.retire(before);
    }
    item->lastWrite = core.milliseconds();
    if (item->isPending()) sender.changed(item, Sender::kQuietTime);
  }
  contents.frozen = false;
  contents.noted = true;
}

void Replica::Implementation::noteChange(const ItemPtr& item, const Contents& contents) {
  std::lock_guard lock(core.mutex);
  struct stat status;
  if (::fstat(contents.file.get(), &status) == 0) {
    item->size = status.st_size;
    item->modified = status.st_mtim.tv_sec * kSecond + status.st_mtim.tv_nsec;
  }
  item->lastWrite = core.milliseconds();
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
    const ContentNumber number = core.store.nextNumber();
    UniqueFd file = core.contents.create(number);
    item->content = number;
    item->contentsChanged = true;
    item->size = 0;
    item->modified = core.milliseconds() * 1'000'000;
    item->lastWrite = core.milliseconds();
    core.save(item);
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

void Replica::Implementation::flush(const std::shared_ptr<OpenFile>& file,
                                    Completion<Done> completion) {
  const ItemPtr& item = file->item();
  std::optional<NSError> unreported;
  {
    std::lock_guard lock(core.mutex);
    if (item->sync) unreported = std::exchange(item->sync->unreported, std::nullopt);
    const bool waits = core.options.closeWaits && file->isWritable() && item->isPending() &&
                       !item->removed && !item->gone;
    if (!unreported && waits) {
      item->sendNow = true;
      sender.changed(item, milliseconds(0));
      sender.awaitVerdict(item, kContentsWait, std::move(completion));
      return;
    }
    if (file->isWritable() && item->isPending() && !item->removed && !item->gone &&
        !item->failure) {
      sender.changed(item, core.options.sendDelay);
    }
  }
  if (unreported) {
    completion(*unreported);
  } else {
    completion(Done{});
  }
}

void Replica::Implementation::fsync(const std::shared_ptr<OpenFile>& file,
                                    Completion<Done> completion) {
  const int result = file->read([&file](int fd) {
    if (::fdatasync(fd) != 0) return errno;
    file->contents()->promised = true;
    return 0;
  });
  if (result != 0) throw posixError(result);
  core.contents.syncNames();
  const ItemPtr& item = file->item();
  {
    // Contents that are shorter than their row says are taken for damaged.
    std::lock_guard lock(core.mutex);
    if (!item->gone && item->contentsChanged) core.save(item);
  }
  core.store.sync();
  {
    std::lock_guard lock(core.mutex);
    if (item->isPending() && !item->removed) {
      item->sendNow = true;
      sender.changed(item, core.options.fsyncWaits ? milliseconds(0) : core.options.sendDelay);
      if (core.options.fsyncWaits) {
        sender.awaitVerdict(item, kContentsWait, std::move(completion));
        return;
      }
    }
  }
  completion(Done{});
}

void Replica::Implementation::setModified(const ItemPtr& item, std::int64_t modified) {
  if (item->content != 0) setFileModified(core.contents.path(item->content), modified);
  item->modified = modified;
}

void Replica::Implementation::setAttributes(Rid rid, const AttributeChange& change,
                                            Completion<Attributes> completion) {
  ItemPtr item;
  {
    std::lock_guard lock(core.mutex);
    item = core.require(rid);
    if (change.size && item->isFolder()) throw posixError(EISDIR);
    if (change.size && *change.size < 0) throw posixError(EINVAL);
    if (change.size && !core.mayWrite(*item)) throw posixError(EACCES);
  }
  auto others = [this, item, change, completion] {
    Attributes result;
    try {
      std::lock_guard lock(core.mutex);
      if (change.mode) item->mode = static_cast<std::uint16_t>(*change.mode & 0777);
      if (change.modified) setModified(item, *change.modified);
      if (!item->gone) core.save(item);
      result = core.attributes(*item);
    } catch (const NSError& error) {
      completion(error);
      return;
    }
    completion(result);
  };
  if (!change.size) {
    others();
    return;
  }
  openFile(rid, {.read = true, .write = true, .truncate = *change.size == 0},
           [size = *change.size, others = std::move(others),
            completion](const Outcome<std::shared_ptr<OpenFile>>& opened) {
             if (!opened.succeeded()) {
               completion(opened.error());
               return;
             }
             if (size != 0) {
               try {
                 const int result = opened.value()->write(
                     [size](int fd) { return ::ftruncate(fd, size) == 0 ? 0 : errno; });
                 if (result != 0) throw posixError(result);
               } catch (const NSError& error) {
                 completion(error);
                 return;
               }
             }
             others();
           });
}

}  // namespace kestrowan::replica
