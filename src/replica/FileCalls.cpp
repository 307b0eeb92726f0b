#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "replica/Implementation.h"
#include "replica/remote/ErrorClass.h"

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
    if (mode.write) core.departures.requireRoom();
    if (mode.write && !core.mayWrite(*item)) throw posixError(EACCES);
    // Before anything is fetched, or made empty.
    if (item->contents.expired()) core.places.require();
    if (item->base && !item->removed && !item->gone) folder = core.table.find(item->base->parent);
  }
  auto open = [this, item, mode, completion = std::move(completion)](const Outcome<Done>&) {
    if (mode.truncate) {
      finishOpen(item, mode, completion);
    } else {
      fetchAndOpen(item, mode, completion);
    }
  };
  if (!mode.truncate) fetcher.walked(item);
  // Whoever opens a file wants to see what others closed before.
  if (folder) {
    lister.prepare(folder, Lister::Need::fresh, std::move(open));
  } else {
    open(Done{});
  }
}

/// Fetches nothing when the contents are here.
void Replica::Implementation::fetchAndOpen(
    const ItemPtr& item, OpenMode mode, const Completion<std::shared_ptr<OpenFile>>& completion) {
  fetcher.fetch(item, [this, item, mode, completion](const Outcome<Done>& fetched) {
    if (fetched.succeeded()) {
      finishOpen(item, mode, completion);
    } else {
      explain(item, fetched.error(), completion);
    }
  });
}

/// Fails a call on an item whose error leaves open what is wrong only after a look at its folder.
void Replica::Implementation::explain(const ItemPtr& item, const NSError& error,
                                      const Completion<std::shared_ptr<OpenFile>>& completion) {
  const remote::ErrorClass kind = remote::errorClass(error);
  ItemPtr folder;
  if (kind == remote::ErrorClass::ambiguous || kind == remote::ErrorClass::gone) {
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
    // Contents that came a moment ago may have been given up again to make room.
    if (item->content != 0) file = open(item, mode.write);
  } catch (const NSError& error) {
    completion(error);
    return;
  }
  if (file) {
    completion(std::move(file));
  } else {
    fetchAndOpen(item, mode, completion);
  }
}

std::shared_ptr<OpenFile> Replica::Implementation::open(const ItemPtr& item, bool writable) {
  auto contents = item->contents.lock();
  if (!contents) {
    contents = std::make_shared<Contents>();
    contents->place = core.places.take();
    contents->file = core.contents.open(item->content);
    contents->number = item->content;
    contents->frozen = core.areNeeded(*item, item->content);
    contents->noted = item->contentsChanged;
    contents->promised = item->contentsChanged;
    contents->versioned = item->size == 0;
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
    if (item->writers == 0 && item->datesAreUnwritten && !item->gone) core.save(item);
    // Also what was created and never written.
    if (item->writers == 0 && item->isPending() && !item->removed) {
      if (item->contentsChanged || item->mustCreate()) {
        sender.changed(item, core.options.sendDelay);
      }
    }
  }
  core.releaseIfUnused(item);
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
      sender.awaitArrival(item, kContentsWait, std::move(completion));
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
  UniqueFd synced;
  file->read([&](int fd) {
    synced = UniqueFd(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
    // A copy that takes the place of the file from now on is synced as it is made.
    file->contents()->promised = true;
    return 0;
  });
  // Takes long, and nobody must wait for it who wants to read, write or send.
  if (!synced || ::fdatasync(synced.get()) != 0) throw posixError(errno);
  core.contents.syncNames();
  const ItemPtr& item = file->item();
  {
    // Contents that are shorter than their row says are taken for damaged.
    std::lock_guard lock(core.mutex);
    if (!item->gone && item->contentsChanged) core.save(item);
    core.rows.requireWritten();
  }
  core.store.sync();
  {
    std::lock_guard lock(core.mutex);
    if (item->isPending() && !item->removed) {
      const bool waits = core.options.fsyncWaits;
      // One that follows another soon must not put off what that one began.
      const bool isUnderWay = std::exchange(item->sendNow, true) && !item->failure;
      if (waits || !isUnderWay) {
        sender.changed(item, waits ? milliseconds(0) : core.options.sendDelay);
      }
      if (waits) {
        sender.awaitArrival(item, kContentsWait, std::move(completion));
        return;
      }
    }
  }
  completion(Done{});
}

void Replica::Implementation::setModified(const ItemPtr& item, std::int64_t modified) {
  if (item->content != 0) setFileModified(core.contents.path(item->content), modified);
  item->modified = modified;
  // Only what changes at the provider from now on makes it newer.
  if (item->isFolder() && item->base) item->base->date.reset();
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
      if (change.mode) item->mode = static_cast<std::uint16_t>(*change.mode & kModeBits);
      if (change.modified) setModified(item, *change.modified);
      if (change.accessed) item->accessed = *change.accessed;
      core.stamp(*item);
      if (!item->gone) core.save(item);
      core.rows.requireWritten();
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
