#include "replica/store/CopyContents.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace kestrowan::replica {

namespace {

constexpr std::size_t kBufferSize = 256 * 1024;
constexpr off_t kLargestStep = off_t{1} << 30;

/// A piece of a file, from byte to byte.
struct Range {
  off_t begin;
  off_t end;
};

int writeAll(int target, const char* bytes, std::size_t count, off_t at) {
  while (count > 0) {
    const auto written = ::pwrite(target, bytes, count, at);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    bytes += written;
    count -= static_cast<std::size_t>(written);
    at += written;
  }
  return 0;
}

int copyThroughMemory(int source, int target, Range range) {
  std::vector<char> buffer(kBufferSize);
  while (range.begin < range.end) {
    const auto wanted = std::min(buffer.size(), static_cast<std::size_t>(range.end - range.begin));
    const auto count = ::pread(source, buffer.data(), wanted, range.begin);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    if (count == 0) return 0;
    const int error = writeAll(target, buffer.data(), static_cast<std::size_t>(count), range.begin);
    if (error != 0) return error;
    range.begin += count;
  }
  return 0;
}

int copyRange(int source, int target, Range range) {
  while (range.begin < range.end) {
    off_t from = range.begin;
    off_t to = range.begin;
    const auto wanted = static_cast<std::size_t>(std::min(range.end - range.begin, kLargestStep));
    const auto count = ::copy_file_range(source, &from, target, &to, wanted, 0);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && (errno == ENOSPC || errno == EDQUOT || errno == EIO || errno == EFBIG)) {
      return errno;
    }
    // The call cannot do it, or not here, or says so by doing nothing, as with some file systems
    // that make their contents up.
    if (count <= 0) return copyThroughMemory(source, target, range);
    range.begin += count;
  }
  return 0;
}

/// The next piece of `source` from `from` on that is no hole; an empty one at the end.
Range nextData(int source, off_t from, off_t size) {
  const off_t begin = ::lseek(source, from, SEEK_DATA);
  if (begin < 0) return errno == ENXIO ? Range{size, size} : Range{from, size};
  const off_t end = ::lseek(source, begin, SEEK_HOLE);
  return {std::min(begin, size), end < 0 ? size : std::min(end, size)};
}

}  // namespace

int shareContents(int source, int target) {
  return ::ioctl(target, FICLONE, source) == 0 ? 0 : errno;
}

int copyContents(int source, int target) {
  if (shareContents(source, target) == 0) return 0;
  struct stat status;
  if (::fstat(source, &status) != 0) return errno;
  if (::ftruncate(target, status.st_size) != 0) return errno;
  auto range = nextData(source, 0, status.st_size);
  while (range.begin < range.end) {
    const int error = copyRange(source, target, range);
    if (error != 0) return error;
    range = nextData(source, range.end, status.st_size);
  }
  return 0;
}

}  // namespace kestrowan::replica
