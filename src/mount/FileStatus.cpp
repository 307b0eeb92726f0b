#include "mount/FileStatus.h"

#include <limits>

namespace kestrowan::mount {

namespace {

constexpr std::int64_t kPerSecond = 1'000'000'000;
constexpr blksize_t kBlockSize = 4096;
/// The unit of `st_blocks`, whatever the file system's blocks are.
constexpr std::int64_t kSectorSize = 512;

}  // namespace

struct stat fileStatus(const replica::Attributes& attributes, std::int64_t allocated,
                       const Appearance& appearance) {
  const bool isFolder = attributes.kind == replica::ItemKind::folder;
  struct stat status = {};
  status.st_ino = attributes.rid;
  status.st_mode = (isFolder ? S_IFDIR : S_IFREG) | attributes.mode;
  status.st_nlink = attributes.links;
  status.st_uid = appearance.user;
  status.st_gid = appearance.group;
  status.st_size = attributes.size;
  status.st_blksize = kBlockSize;
  status.st_blocks = (allocated + kSectorSize - 1) / kSectorSize;
  status.st_mtim = timeOf(attributes.modified);
  status.st_atim = timeOf(attributes.accessed);
  status.st_ctim = timeOf(attributes.changed);
  return status;
}

fuse_entry_param kernelEntry(const replica::Attributes& attributes, std::int64_t allocated,
                             const Appearance& appearance) {
  fuse_entry_param entry = {};
  entry.ino = attributes.rid;
  entry.attr = fileStatus(attributes, allocated, appearance);
  entry.attr_timeout = appearance.cacheTime;
  entry.entry_timeout = appearance.cacheTime;
  return entry;
}

std::uint16_t permissionBits(mode_t mode) {
  return static_cast<std::uint16_t>(mode & replica::kModeBits);
}

std::int64_t nanoseconds(const timespec& time) {
  std::int64_t all = 0;
  if (!__builtin_mul_overflow(static_cast<std::int64_t>(time.tv_sec), kPerSecond, &all) &&
      !__builtin_add_overflow(all, static_cast<std::int64_t>(time.tv_nsec), &all)) {
    return all;
  }
  return time.tv_sec < 0 ? std::numeric_limits<std::int64_t>::min()
                         : std::numeric_limits<std::int64_t>::max();
}

timespec timeOf(std::int64_t nanoseconds) {
  timespec time = {};
  time.tv_sec = nanoseconds / kPerSecond;
  time.tv_nsec = nanoseconds % kPerSecond;
  if (time.tv_nsec < 0) {
    --time.tv_sec;
    time.tv_nsec += kPerSecond;
  }
  return time;
}

}  // namespace kestrowan::mount
