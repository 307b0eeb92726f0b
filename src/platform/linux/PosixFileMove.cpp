#include "platform/linux/PosixFileMove.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>
#include <vector>

#include "platform/base/UniqueFd.h"

namespace kestrowan {

namespace {

constexpr std::size_t kBufferSize = 128 * 1024;
constexpr mode_t kPermissionBits = 07777;

/// Removes the file at its path unless told to keep it.
class PartialFile {
 public:
  explicit PartialFile(const std::string& path) : path_(path) {}
  PartialFile(const PartialFile&) = delete;
  PartialFile& operator=(const PartialFile&) = delete;
  ~PartialFile() {
    if (!kept_) ::unlink(path_.c_str());
  }
  void keep() { kept_ = true; }

 private:
  const std::string& path_;
  bool kept_ = false;
};

/// Renames without replacing; as the system call does, gives -1 and sets `errno`.
int renameExclusively(const char* from, const char* to) {
#ifdef __APPLE__
  return ::renamex_np(from, to, RENAME_EXCL);
#else
  return ::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
#endif
}

/// When a file was last read and changed, as `futimens` takes them.
std::array<timespec, 2> timesOf(const struct stat& status) {
#ifdef __APPLE__
  return {status.st_atimespec, status.st_mtimespec};
#else
  return {status.st_atim, status.st_mtim};
#endif
}

int writeAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const auto written = ::write(file, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

int copyBytes(int source, int target) {
  std::vector<char> buffer(kBufferSize);
  while (true) {
    const auto count = ::read(source, buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    if (count == 0) return 0;
    const int error = writeAll(target, {buffer.data(), static_cast<std::size_t>(count)});
    if (error != 0) return error;
  }
}

/// Whether a file system that cannot make this hard link may still take a copy.
bool isRefusalToLink(int error) {
  return error == EXDEV || error == EPERM || error == ENOSYS || error == ENOTSUP || error == EMLINK;
}

}  // namespace

int moveFileByLink(const std::string& from, const std::string& to) {
  if (::link(from.c_str(), to.c_str()) != 0) return errno;
  PartialFile target(to);
  if (::unlink(from.c_str()) != 0) return errno;
  target.keep();
  return 0;
}

int moveFileByCopy(const std::string& from, const std::string& to) {
  const UniqueFd source(::open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!source) return errno;
  struct stat status;
  if (::fstat(source.get(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return EXDEV;
  UniqueFd copy(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!copy) return errno;
  PartialFile target(to);
  if (const int error = copyBytes(source.get(), copy.get())) return error;
  if (::futimens(copy.get(), timesOf(status).data()) != 0) return errno;
  if (::fchmod(copy.get(), status.st_mode & kPermissionBits) != 0) return errno;
  // Some file systems report only now that the data had no room.
  if (::close(copy.release()) != 0 && errno != EINTR) return errno;
  if (::unlink(from.c_str()) != 0) return errno;
  target.keep();
  return 0;
}

int moveFileExclusively(const std::string& from, const std::string& to) {
  if (renameExclusively(from.c_str(), to.c_str()) == 0) return 0;
  switch (errno) {
    case EINVAL:
    case ENOSYS:
    case ENOTSUP:
      break;
    case EXDEV:
      return moveFileByCopy(from, to);
    default:
      return errno;
  }
  const int error = moveFileByLink(from, to);
  return isRefusalToLink(error) ? moveFileByCopy(from, to) : error;
}

}  // namespace kestrowan
