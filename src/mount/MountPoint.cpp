#include "mount/MountPoint.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <optional>
#include <string_view>
#include <thread>

#include "mount/DescribedError.h"
#include "mount/Fusermount.h"
#include "mount/LocalFiles.h"
#include "mount/MountTable.h"
#include "platform/base/Threads.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/ShellWord.h"

namespace kestrowan::mount {

namespace {

constexpr std::chrono::seconds kPatience{5};
constexpr mode_t kModeBits = 07777;

std::string resolved(const std::string& path) {
  const std::unique_ptr<char, void (*)(void*)> found(::realpath(path.c_str(), nullptr), std::free);
  if (found) return found.get();
  if (errno == ENOENT) {
    throw describedError(ENOENT,
                         path + " does not exist; create it first: mkdir -p " + shellWord(path));
  }
  throw systemError(errno, path);
}

/// The `errno` with which a mount answers, 0 when it works; nothing when it does not answer in
/// time. A thread that gets no answer is left behind.
std::optional<int> answerOf(const std::string& path) {
  auto answer = std::make_shared<std::promise<int>>();
  auto future = answer->get_future();
  startThread("the probe of a mount", [answer, path] {
    // Unlike attributes, this the kernel never answers by itself.
    struct statvfs space = {};
    answer->set_value(::statvfs(path.c_str(), &space) == 0 ? 0 : errno);
  }).detach();
  if (future.wait_for(kPatience) != std::future_status::ready) return std::nullopt;
  return future.get();
}

void unmountStale(const std::string& path) {
  if (fusermountUnmount(path, false).empty()) return;
  const auto complaint = fusermountUnmount(path, true);
  if (complaint.empty()) return;
  throw describedError(
      EBUSY, path + " is a mount whose program has died, and cannot be freed: " + complaint);
}

/// Several dead mounts may lie on each other.
void freeOfStaleMounts(const std::string& path) {
  constexpr int kMost = 16;
  for (int round = 0; round < kMost; ++round) {
    const auto mount = mountAt(path);
    if (!mount) return;
    if (mount->type != kMountType) {
      throw describedError(EBUSY, path + " is the mount point of another file system (" +
                                      mount->type +
                                      "); choose another folder, or unmount it first");
    }
    const auto answer = answerOf(path);
    if (!answer) {
      throw describedError(EBUSY,
                           path +
                               " is mounted, and its program does not answer; end that program, "
                               "then run: fusermount3 -u " +
                               shellWord(path));
    }
    if (*answer != ENOTCONN && *answer != ECONNABORTED) {
      throw describedError(
          EBUSY,
          path + " is mounted already; unmount it first: kestrowan unmount " + shellWord(path));
    }
    unmountStale(path);
  }
  throw describedError(EBUSY, path + " is a mount whose program has died, and cannot be freed");
}

}  // namespace

MountPoint::MountPoint(const std::string& path, uid_t owner, const std::string& stateDirectory)
    : path_(resolved(path)), stateDirectory_(stateDirectory) {
  freeOfStaleMounts(path_);
  if (!stateDirectory_.empty()) {
    checkApart(path_, stateDirectory_);
    restoreMountPoint(stateDirectory_);
  }
  folder_.reset(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder_ && errno == ENOTDIR) {
    throw describedError(ENOTDIR, path_ + " is not a folder; choose an empty folder");
  }
  struct stat status = {};
  if (!folder_ || ::fstat(folder_.get(), &status) != 0) throw systemError(errno, path_);
  if (status.st_uid != owner) {
    throw describedError(EPERM,
                         path_ + " belongs to another user; choose an empty folder of your own");
  }
  if (!isEmptyFolder(folder_.get())) {
    throw describedError(
        ENOTEMPTY, path_ + " is not empty; its files would be hidden. Choose an empty folder");
  }
  former_ = {path_, status.st_dev, status.st_ino, status.st_mode & kModeBits};
}

void MountPoint::checkApart(const std::string& path, const std::string& stateDirectory) {
  const auto point = resolvedAsFar(path);
  const auto state = resolvedAsFar(stateDirectory);
  if (isWithin(point, state)) {
    throw describedError(EINVAL, path + " lies in " + stateDirectory +
                                     ", where the mount keeps its files; choose another folder");
  }
  if (isWithin(state, point)) {
    throw describedError(EINVAL, path + " would hide " + stateDirectory +
                                     ", where the mount keeps its files; choose another folder");
  }
}

void MountPoint::open() {
  if (!stateDirectory_.empty()) former_.write(stateDirectory_);
  if (::fchmod(folder_.get(), S_IRWXU) != 0) throw systemError(errno, path_);
}

void MountPoint::seal() {
  ::fchmod(folder_.get(), FormerMode::kSealed);
}

void MountPoint::restore() {
  former_.restore(folder_.get());
  if (!stateDirectory_.empty()) FormerMode::forget(stateDirectory_);
}

void restoreMountPoint(const std::string& stateDirectory) {
  const auto former = FormerMode::read(stateDirectory);
  if (!former || mountAt(former->path)) return;
  const UniqueFd folder(
      ::open(former->path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (folder) former->restore(folder.get());
  FormerMode::forget(stateDirectory);
}

}  // namespace kestrowan::mount
