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

replica::OpenMode openMode(int flags) {
  replica::OpenMode mode;
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
  info.fh = session.files().add(std::make_shared<FileHandle>(FileHandle{file}));
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
  const auto entry =
      kernelEntry(attributes, session.replica().allocated(attributes), session.appearance());
  session.replica().remember(attributes.rid);
  prepareHandle(session, file, info);
  if (reply.send([&](fuse_req_t request) { return fuse_reply_create(request, &entry, &info); })) {
    return;
  }
  session.files().take(info.fh);
  session.replica().forget(attributes.rid, 1);
}

std::optional<std::int64_t> knownSize(Session& session, replica::Rid item) {
  try {
    return session.replica().attributes(item).size;
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
void openExisting(const std::shared_ptr<Reply>& reply, replica::Rid folder, std::string_view name,
                  const fuse_file_info& info) {
  reply->session().replica().lookUp(
      folder, name,
      reply->completion<replica::Attributes>(
          [info](const std::shared_ptr<Reply>& found, replica::Attributes attributes) {
            found->session().replica().openFile(
                attributes.rid, openMode(info.flags),
                found->completion<File>(
                    [info, item = attributes.rid](const std::shared_ptr<Reply>& opened, File file) {
                      const auto now = opened->session().replica().attributes(item);
                      sendCreated(*opened, info, file, now);
                    }));
          }));
}

}  // namespace

void create(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode,
            fuse_file_info* info) noexcept {
  serve(request, Addressing::byName, [&](const std::shared_ptr<Reply>& reply) {
    const std::string checked(checkedNewName(name));
    auto& session = reply->session();
    session.replica().createFile(
        folder, checked, permissionBits(mode),
        [reply, folder, checked, info = *info](replica::Outcome<replica::CreatedFile> outcome) {
          reply->guard([&] {
            if (outcome.succeeded()) {
              reply->session().nameChanges().count(folder);
              auto& made = outcome.value();
              return sendCreated(*reply, info, made.file, made.attributes);
            }
            const bool isTaken = errnoFor(outcome.error(), Addressing::byName) == EEXIST;
            if (!isTaken || (info.flags & O_EXCL) != 0) return reply->fail(outcome.error());
            openExisting(reply, folder, checked, info);
          });
        });
    reply->allowSignal(OnSignal::endsTheDying);
  });
}

void open(fuse_req_t request, fuse_ino_t item, fuse_file_info* info) noexcept {
  serve(request, Addressing::byNumber, [&](const std::shared_ptr<Reply>& reply) {
    const auto mode = openMode(info->flags);
    auto& replica = reply->session().replica();
    const auto size = replica.attributes(item).size;
    replica.openFile(item, mode,
                     reply->completion<File>([info = *info, size, truncate = mode.truncate](
                                                 const std::shared_ptr<Reply>& opened, File file) {
                       // The kernel itself makes a file empty that it opens so.
                       if (truncate) return sendOpened(*opened, info, file);
                       sendOpenedWithSize(opened, info, std::move(file), size);
                     }));
    reply->allowSignal(OnSignal::ends);
  });
}

void flush(fuse_req_t request, fuse_ino_t, fuse_file_info* info) noexcept {
  serve(request, Addressing::byNumber, [&](const std::shared_ptr<Reply>& reply) {
    auto& session = reply->session();
    session.replica().flush(session.files().at(info->fh)->file, reply->completion());
    reply->allowSignal(OnSignal::ends);
  });
}

void release(fuse_req_t request, fuse_ino_t, fuse_file_info* info) noexcept {
  serveAtOnce(request, Addressing::byNumber, [&] {
    Session::of(request).files().take(info->fh);
    fuse_reply_err(request, 0);
  });
}

void sync(fuse_req_t request, fuse_ino_t, int, fuse_file_info* info) noexcept {
  serve(request, Addressing::byNumber, [&](const std::shared_ptr<Reply>& reply) {
    auto& session = reply->session();
    session.replica().fsync(session.files().at(info->fh)->file, reply->completion());
    reply->allowSignal(OnSignal::ends);
  });
}

}  // namespace kestrowan::mount
