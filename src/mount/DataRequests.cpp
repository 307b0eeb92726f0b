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

/// So many reads of one file may wait for its contents before those in advance are refused.
constexpr std::size_t kMostWaitingReads = 16;
/// A copy waits for no more at a time.
constexpr std::size_t kLargestWaitingCopy = std::size_t{4} << 20;

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

/// Answers with `size` bytes of contents that are here, as one of libfuse's reply functions does.
int sendBytes(fuse_req_t request, int file, off_t offset, std::size_t size,
              fuse_buf_copy_flags flags) {
  auto buffer = fileBuffer(file, offset, size);
  return fuse_reply_data(request, &buffer, flags);
}

/// Answers once the bytes have arrived. No thread waits meanwhile.
Task<void> readLater(std::shared_ptr<Reply> reply, std::shared_ptr<replica::OpenFile> file,
                     off_t offset, std::size_t size) {
  bool isSent = false;
  while (!isSent) {
    auto arrival = file->arrival(offset, size);
    co_await std::move(arrival);
    isSent = file->readArrived(offset, size, [&](int contents, std::size_t count) {
      // A thread that is not libfuse's would keep the pipe that libfuse splices through.
      reply->send([&](fuse_req_t request) {
        return sendBytes(request, contents, offset, count, FUSE_BUF_NO_SPLICE);
      });
    });
  }
}

/// Whether a read is to wait for its bytes. The kernel holds up all other reads when too many in
/// advance wait, so those of one file are bounded.
bool mayWait(FileHandle& handle, const fuse_file_info& info, off_t offset, std::size_t size) {
  const bool isInAdvance = (info.flags & O_DIRECT) == 0;
  if (!isInAdvance || handle.file->waitingReads() < kMostWaitingReads) return true;
  return !handle.refusedReads.refuse(offset, size);
}

/// `length` bytes at most of one file into another. Gives how many, or minus the error.
ssize_t copyInto(const replica::OpenFile& target, int source, off_t from, off_t to,
                 std::size_t length, unsigned flags) {
  return target.write([&](int file) -> ssize_t {
    const auto count = ::copy_file_range(source, &from, file, &to, length, flags);
    return count < 0 ? -errno : count;
  });
}

/// A descriptor of its own, since two files must not be held at once; none while not all of the
/// bytes are here, of which `length` then says how many there are.
UniqueFd arrivedSource(const replica::OpenFile& file, off_t from, std::size_t& length) {
  UniqueFd source;
  const bool isHere = file.readArrived(from, length, [&](int contents, std::size_t count) {
    source = UniqueFd(::fcntl(contents, F_DUPFD_CLOEXEC, 0));
    if (!source) throw posixError(errno);
    length = count;
  });
  return isHere ? std::move(source) : UniqueFd();
}

struct Copy {
  std::shared_ptr<replica::OpenFile> source;
  off_t from = 0;
  std::shared_ptr<replica::OpenFile> target;
  off_t to = 0;
  std::size_t length = 0;
  unsigned flags = 0;
};

Task<void> copyLater(std::shared_ptr<Reply> reply, Copy copy) {
  // A copy may be shorter than was asked for.
  copy.length = std::min(copy.length, kLargestWaitingCopy);
  UniqueFd source;
  while (!source) {
    auto arrival = copy.source->arrival(copy.from, copy.length);
    co_await std::move(arrival);
    source = arrivedSource(*copy.source, copy.from, copy.length);
  }
  const auto copied =
      copyInto(*copy.target, source.get(), copy.from, copy.to, copy.length, copy.flags);
  reply->send([copied](fuse_req_t request) {
    return copied < 0 ? fuse_reply_err(request, errnoFor(static_cast<int>(-copied)))
                      : fuse_reply_write(request, static_cast<std::size_t>(copied));
  });
}

/// Where the next data or hole is in contents on their way, which count as having none; -1 behind
/// their end.
off_t soughtInArriving(const replica::OpenFile& file, off_t offset, int whence) {
  const off_t size = file.contents()->size;
  if (offset < 0 || offset >= size) return -1;
  return whence == SEEK_HOLE ? size : offset;
}

}  // namespace

void read(fuse_req_t request, fuse_ino_t, size_t size, off_t offset,
          fuse_file_info* info) noexcept {
  std::shared_ptr<replica::OpenFile> file;
  bool isSent = false;
  bool isToWait = false;
  try {
    const auto handle = Session::of(request).files().at(info->fh);
    file = handle->file;
    isSent = file->readArrived(offset, size, [&](int contents, std::size_t count) {
      sendBytes(request, contents, offset, count, static_cast<fuse_buf_copy_flags>(0));
    });
    isToWait = !isSent && mayWait(*handle, *info, offset, size);
  } catch (...) {
    fuse_reply_err(request, errnoFor(std::current_exception(), Addressing::byNumber));
    return;
  }
  if (isSent) return;
  if (!isToWait) {
    fuse_reply_err(request, EAGAIN);
    return;
  }
  serve(request, Addressing::byNumber, OnSignal::ends, [&](std::shared_ptr<Reply> reply) {
    return readLater(std::move(reply), std::move(file), offset, size);
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
    const auto open = openFile(request, *info);
    // Moves the position of the shared descriptor too, which nobody uses.
    const auto [position, error] = open->read([&](int file) {
      if (file < 0) return std::pair(soughtInArriving(*open, offset, whence), ENXIO);
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
  Copy copy;
  UniqueFd source;
  try {
    copy = {openFile(request, *fromInfo),   fromOffset,
            openFile(request, *toInfo),     toOffset,
            std::min(length, kLargestCopy), static_cast<unsigned>(flags)};
    source = arrivedSource(*copy.source, copy.from, copy.length);
    if (source) {
      const auto copied =
          copyInto(*copy.target, source.get(), copy.from, copy.to, copy.length, copy.flags);
      return replyCount(request, copied);
    }
  } catch (...) {
    fuse_reply_err(request, errnoFor(std::current_exception(), Addressing::byNumber));
    return;
  }
  serve(request, Addressing::byNumber, OnSignal::ends,
        [&](std::shared_ptr<Reply> reply) { return copyLater(std::move(reply), std::move(copy)); });
}

void control(fuse_req_t request, fuse_ino_t, unsigned, void*, fuse_file_info*, unsigned,
             const void*, size_t, size_t) noexcept {
  fuse_reply_err(request, ENOTTY);
}

}  // namespace kestrowan::mount
