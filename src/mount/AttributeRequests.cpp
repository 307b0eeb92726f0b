#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "mount/FileStatus.h"
#include "mount/Reply.h"
#include "mount/Requests.h"

namespace kestrowan::mount {

namespace {

/// Throws EPERM of `NSPOSIXErrorDomain` when an item is to be given to another user.
void checkOwner(const Appearance& appearance, const struct stat& wanted, int which) {
  const bool givesAway = ((which & FUSE_SET_ATTR_UID) != 0 && wanted.st_uid != appearance.user) ||
                         ((which & FUSE_SET_ATTR_GID) != 0 && wanted.st_gid != appearance.group);
  if (givesAway) throw posixError(EPERM);
}

std::int64_t now() {
  timespec time = {};
  ::clock_gettime(CLOCK_REALTIME, &time);
  return nanoseconds(time);
}

replica::AttributeChange attributeChange(const struct stat& wanted, int which) {
  replica::AttributeChange change;
  if ((which & FUSE_SET_ATTR_MODE) != 0) change.mode = permissionBits(wanted.st_mode);
  if ((which & FUSE_SET_ATTR_SIZE) != 0) change.size = wanted.st_size;
  if ((which & FUSE_SET_ATTR_MTIME_NOW) != 0) {
    change.modified = now();
  } else if ((which & FUSE_SET_ATTR_MTIME) != 0) {
    change.modified = nanoseconds(wanted.st_mtim);
  }
  if ((which & FUSE_SET_ATTR_ATIME_NOW) != 0) {
    change.accessed = now();
  } else if ((which & FUSE_SET_ATTR_ATIME) != 0) {
    change.accessed = nanoseconds(wanted.st_atim);
  }
  return change;
}

/// Through the descriptor, which also reaches a file that has no name any more.
void truncate(const replica::OpenFile& open, std::int64_t size) {
  const int error =
      open.write([size](int file) { return ::ftruncate(file, size) == 0 ? 0 : errno; });
  if (error != 0) throw posixError(error);
}

Task<void> changeAttributes(std::shared_ptr<Reply> reply, replica::Rid item,
                            replica::AttributeChange change, bool isMore) {
  auto& files = reply->session().replica().files();
  if (!isMore) {
    reply->sendAttributes(files.attributes(item));
    co_return;
  }
  auto changing = files.setAttributes(item, change);
  const replica::Attributes changed = co_await std::move(changing);
  reply->sendAttributes(changed);
}

}  // namespace

void getAttributes(fuse_req_t request, fuse_ino_t item, fuse_file_info*) noexcept {
  if (isEventRequest(request)) return answerEventAttributes(request, item);
  serveAtOnce(request, Addressing::byNumber, [&] {
    auto& session = Session::of(request);
    const auto attributes = session.replica().files().attributes(item);
    const auto status = fileStatus(attributes, session.replica().files().allocated(attributes),
                                   session.appearance());
    fuse_reply_attr(request, &status, session.appearance().cacheTime);
  });
}

void setAttributes(fuse_req_t request, fuse_ino_t item, struct stat* wanted, int which,
                   fuse_file_info* info) noexcept {
  if (isEventRequest(request)) return answerEventTouch(request, item, which);
  serve(request, Addressing::byNumber, OnSignal::ends, [&](std::shared_ptr<Reply> reply) {
    auto& session = reply->session();
    checkOwner(session.appearance(), *wanted, which);
    auto change = attributeChange(*wanted, which);
    if (change.size && info != nullptr) {
      truncate(*session.files().at(info->fh)->file, *change.size);
      change.size.reset();
      which &= ~FUSE_SET_ATTR_SIZE;
    }
    return changeAttributes(std::move(reply), item, change, which != 0);
  });
}

void fileSystem(fuse_req_t request, fuse_ino_t) noexcept {
  serveAtOnce(request, Addressing::byNumber, [&] {
    constexpr std::int64_t kBlockSize = 4096;
    constexpr std::int64_t kLongestName = 255;
    const auto space = Session::of(request).replica().files().space();
    struct statvfs answer = {};
    answer.f_bsize = kBlockSize;
    answer.f_frsize = kBlockSize;
    answer.f_blocks = static_cast<fsblkcnt_t>(space.capacity / kBlockSize);
    answer.f_bfree = static_cast<fsblkcnt_t>(space.free / kBlockSize);
    answer.f_bavail = answer.f_bfree;
    answer.f_namemax = kLongestName;
    fuse_reply_statfs(request, &answer);
  });
}

}  // namespace kestrowan::mount
