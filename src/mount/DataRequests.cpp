#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

#include "mount/Reply.h"
#include "mount/Requests.h"
#include "platform/base/UniqueFd.h"

namespace kestrowan::mount {

namespace {

/// Who copies a lot does so in pieces, because nothing can end one of them early.
constexpr std::size_t kLargestCopy = std::size_t{64} << 20;

std::shared_ptr<replica::OpenFile> openFile(fuse_req_t request, const fuse_file_info& info) {
  return Session::of(request).files().at(info.fh)->file;
}

/// `size` bytes of a file, from `offset` on.
fuse_bufvec fileBuffer(int file, off_t offset, std::size_t size) {
  fuse_bufvec buffer = {};
  buffer.count = 1;
  buffer.buf[0].size = size;
  buffer.buf[0].flags = static_cast<fuse_buf_flags>(FUSE_BUF_IS_FD | FUSE_BUF_FD_SEEK);
  buffer.buf[0].fd = file;
  buffer.buf[0].pos = offset;
  return buffer;
}

/// The kernel appends at the end that it knows, also to other contents that have come since.
off_t sizeOf(int file) {
  struct stat status;
  if (::fstat(file, &status) != 0) throw posixError(errno);
  return status.st_size;
}

/// Answers with the number of bytes, or with the error that a negative one stands for.
void replyCount(fuse_req_t request, ssize_t count) {
  if (count < 0) {
    fuse_reply_err(request, errnoFor(static_cast<int>(-count)));
  } else {
    fuse_reply_write(request, static_cast<std::size_t>(count));
  }
}

}  // namespace

void read(fuse_req_t request, fuse_ino_t, size_t size, off_t offset,
          fuse_file_info* info) noexcept {
  serveAtOnce(request, Addressing::byNumber, [&] {
    openFile(request, *info)->read([&](int file) {
      auto buffer = fileBuffer(file, offset, size);
      fuse_reply_data(request, &buffer, static_cast<fuse_buf_copy_flags>(0));
    });
  });
}

void write(fuse_req_t request, fuse_ino_t, fuse_bufvec* data, off_t offset,
           fuse_file_info* info) noexcept {
  // What a program wrote into memory has its place, however the file is open.
  const bool appends = (info->flags & O_APPEND) != 0 && info->writepage == 0;
  serveAtOnce(request, Addressing::byNumber, [&] {
    auto& session = Session::of(request);
    const auto open = session.files().at(info->fh)->file;
    off_t place = offset;
    const auto written = open->write([&](int file) {
      if (appends) place = sizeOf(file);
      auto buffer = fileBuffer(file, place, fuse_buf_size(data));
      return fuse_buf_copy(&buffer, data, static_cast<fuse_buf_copy_flags>(0));
    });
    replyCount(request, written);
    // The kernel takes the bytes to be where it wanted them.
    if (place != offset) session.invalidation().itemChanged(open->rid(), true);
  });
}

void allocate(fuse_req_t request, fuse_ino_t, int mode, off_t offset, off_t length,
              fuse_file_info* info) noexcept {
  serveAtOnce(request, Addressing::byNumber, [&] {
    const int result = openFile(request, *info)->write([&](int file) {
      return ::fallocate(file, mode, offset, length) == 0 ? 0 : errno;
    });
    fuse_reply_err(request, result == 0 ? 0 : errnoFor(result));
  });
}

void seek(fuse_req_t request, fuse_ino_t, off_t offset, int whence, fuse_file_info* info) noexcept {
  serveAtOnce(request, Addressing::byNumber, [&] {
    // Moves the position of the shared descriptor too, which nobody uses.
    const auto [position, error] = openFile(request, *info)->read([&](int file) {
      const auto found = ::lseek(file, offset, whence);
      return std::pair(found, found < 0 ? errno : 0);
    });
    if (position < 0) {
      fuse_reply_err(request, errnoFor(error));
    } else {
      fuse_reply_lseek(request, position);
    }
  });
}

void copyRange(fuse_req_t request, fuse_ino_t, off_t fromOffset, fuse_file_info* fromInfo,
               fuse_ino_t, off_t toOffset, fuse_file_info* toInfo, size_t length,
               int flags) noexcept {
  serveAtOnce(request, Addressing::byNumber, [&] {
    // A descriptor of its own, since two files must not be held at once.
    const UniqueFd source(openFile(request, *fromInfo)->read([](int file) {
      return ::fcntl(file, F_DUPFD_CLOEXEC, 0);
    }));
    if (!source) throw posixError(errno);
    const auto copied = openFile(request, *toInfo)->write([&](int file) -> ssize_t {
      const auto count =
          ::copy_file_range(source.get(), &fromOffset, file, &toOffset,
                            std::min(length, kLargestCopy), static_cast<unsigned>(flags));
      return count < 0 ? -errno : count;
    });
    replyCount(request, copied);
  });
}

void control(fuse_req_t request, fuse_ino_t, unsigned, void*, fuse_file_info*, unsigned,
             const void*, size_t, size_t) noexcept {
  fuse_reply_err(request, ENOTTY);
}

}  // namespace kestrowan::mount
