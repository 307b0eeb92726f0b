#include <fcntl.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <utility>

#include "mount/FileStatus.h"
#include "mount/Names.h"
#include "mount/Reply.h"
#include "mount/Requests.h"

namespace kestrowan::mount {

namespace {

using File = std::shared_ptr<replica::OpenFile>;

replica::OpenMode openMode(const Reply& reply, int flags) {
  replica::OpenMode mode;
  mode.caller = reply.caller();
  mode.read = (flags & O_ACCMODE) != O_WRONLY;
  mode.truncate = (flags & O_TRUNC) != 0;
  // A program may truncate a file that it opens only to read.
  mode.write = (flags & O_ACCMODE) != O_RDONLY || mode.truncate;
  return mode;
}

/// Enters `file` as the kernel's, and says in `info` what the kernel may do with it.
void prepareHandle(Session& session, const File& file, fuse_file_info& info) {
  const auto& contents = *file->contents();
  const auto number = [&] {
    std::shared_lock lock(file->contents()->mutex);
    return static_cast<replica::ContentNumber>(contents.number);
  }();
  info.keep_cache = session.seenContents().see(file->rid(), number);
  // A reader's close is none of the provider's business, and must not take the writer's error away.
  info.noflush = !file->isWritable();
  auto handle = std::make_shared<FileHandle>();
  handle->file = file;
  info.fh = session.files().add(std::move(handle));
}

void sendOpened(Reply& reply, fuse_file_info info, const File& file) {
  auto& session = reply.session();
  prepareHandle(session, file, info);
  if (!reply.send([&](fuse_req_t request) { return fuse_reply_open(request, &info); })) {
    session.files().take(info.fh);
  }
}

void sendCreated(Reply& reply, fuse_file_info info, const File& file,
                 const replica::Attributes& attributes) {
  auto& session = reply.session();
  const auto entry = kernelEntry(attributes, session.replica().files().allocated(attributes),
                                 session.appearance());
  session.replica().files().remember(attributes.rid);
  prepareHandle(session, file, info);
  if (reply.send([&](fuse_req_t request) { return fuse_reply_create(request, &entry, &info); })) {
    return;
  }
  session.files().take(info.fh);
  session.replica().files().forget(attributes.rid, 1);
}

std::optional<std::int64_t> knownSize(Session& session, replica::Rid item) {
  try {
    return session.replica().files().attributes(item).size;
  } catch (const NSError&) {
    return std::nullopt;
  }
}

/// Answers an opening, once the kernel knows the size that the contents turned out to have: a
/// program would else read no further than the one listed.
void sendOpenedWithSize(const std::shared_ptr<Reply>& reply, const fuse_file_info& info, File file,
                        std::optional<std::int64_t> sizeBefore) {
  auto& session = reply->session();
  const auto item = file->rid();
  if (knownSize(session, item) != sizeBefore) session.invalidation().itemChanged(item, false);
  session.invalidation().whenKnown(item, [reply, info, file = std::move(file)] {
    reply->guard([&] { sendOpened(*reply, info, file); });
  });
}

/// Opens what has the name that the kernel believed free.
Task<void> openExisting(std::shared_ptr<Reply> reply, replica::Rid folder, std::string name,
                        fuse_file_info info) {
  auto& files = reply->session().replica().files();
  auto looking = files.lookUp(folder, std::move(name));
  const replica::Attributes found = co_await std::move(looking);
  auto opening = files.openFile(found.rid, openMode(*reply, info.flags));
  const File file = co_await std::move(opening);
  sendCreated(*reply, info, file, files.attributes(found.rid));
}

Task<void> createOrOpen(std::shared_ptr<Reply> reply, replica::Rid folder, std::string name,
                        std::uint16_t mode, fuse_file_info info) {
  auto& session = reply->session();
  bool isTaken = false;
  try {
    auto making = session.replica().files().createFile(folder, name, mode);
    const replica::CreatedFile made = co_await std::move(making);
    session.nameChanges().count(folder);
    sendCreated(*reply, info, made.file, made.attributes);
  } catch (const NSError& error) {
    isTaken = errnoFor(error, Addressing::byName) == EEXIST && (info.flags & O_EXCL) == 0;
    if (!isTaken) throw;
  }
  if (!isTaken) co_return;
  auto opened = openExisting(reply, folder, std::move(name), info);
  co_await std::move(opened);
}

Task<void> openAndSend(std::shared_ptr<Reply> reply, replica::Rid item, fuse_file_info info) {
  const auto mode = openMode(*reply, info.flags);
  auto& files = reply->session().replica().files();
  const auto size = files.attributes(item).size;
  auto opening = files.openFile(item, mode);
  const File file = co_await std::move(opening);
  if (mode.truncate) {
    // The kernel itself makes a file empty that it opens so.
    sendOpened(*reply, info, file);
  } else {
    sendOpenedWithSize(reply, info, file, size);
  }
}

Task<void> end(std::shared_ptr<Reply> reply, Task<void> call) {
  std::exception_ptr problem;
  try {
    co_await std::move(call);
  } catch (...) {
    problem = std::current_exception();
  }
  reply->end(problem);
}

}  // namespace

void create(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode,
            fuse_file_info* info) noexcept {
  serve(request, Addressing::byName, OnSignal::endsTheDying, [&](std::shared_ptr<Reply> reply) {
    return createOrOpen(std::move(reply), folder, checkedNewName(name), permissionBits(mode),
                        *info);
  });
}

void open(fuse_req_t request, fuse_ino_t item, fuse_file_info* info) noexcept {
  serve(request, Addressing::byNumber, OnSignal::ends,
        [&](std::shared_ptr<Reply> reply) { return openAndSend(std::move(reply), item, *info); });
}

void flush(fuse_req_t request, fuse_ino_t, fuse_file_info* info) noexcept {
  serve(request, Addressing::byNumber, OnSignal::ends, [&](std::shared_ptr<Reply> reply) {
    auto& session = reply->session();
    auto flushing = session.replica().files().flush(session.files().at(info->fh)->file);
    return end(std::move(reply), std::move(flushing));
  });
}

void release(fuse_req_t request, fuse_ino_t, fuse_file_info* info) noexcept {
  serveAtOnce(request, Addressing::byNumber, [&] {
    Session::of(request).files().take(info->fh);
    fuse_reply_err(request, 0);
  });
}

void sync(fuse_req_t request, fuse_ino_t, int, fuse_file_info* info) noexcept {
  serve(request, Addressing::byNumber, OnSignal::ends, [&](std::shared_ptr<Reply> reply) {
    auto& session = reply->session();
    auto syncing = session.replica().files().fsync(session.files().at(info->fh)->file);
    return end(std::move(reply), std::move(syncing));
  });
}

}  // namespace kestrowan::mount
