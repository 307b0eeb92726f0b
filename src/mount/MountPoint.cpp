#include "mount/MountPoint.h"

#include <dirent.h>
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
#include <system_error>
#include <thread>

#include "mount/Fusermount.h"
#include "mount/MountTable.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::mount {

namespace {

constexpr std::chrono::seconds kPatience{5};

NSError refusal(int number, std::string text) {
  return NSError(NSPOSIXErrorDomain, number,
                 {{std::string(NSLocalizedDescriptionKey), std::move(text)}});
}

NSError failure(int number, const std::string& path) {
  return refusal(number, path + ": " + std::generic_category().message(number));
}

std::string resolved(const std::string& path) {
  const std::unique_ptr<char, void (*)(void*)> found(::realpath(path.c_str(), nullptr), std::free);
  if (found) return found.get();
  if (errno == ENOENT) {
    throw refusal(ENOENT, path + " does not exist; create it first: mkdir -p '" + path + "'");
  }
  throw failure(errno, path);
}

/// The `errno` with which a mount answers, 0 when it works; nothing when it does not answer in
/// time. A thread that gets no answer is left behind.
std::optional<int> answerOf(const std::string& path) {
  auto answer = std::make_shared<std::promise<int>>();
  auto future = answer->get_future();
  std::thread([answer, path] {
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
  throw refusal(EBUSY,
                path + " is a mount whose program has died, and cannot be freed: " + complaint);
}

/// Several dead mounts may lie on each other.
void freeOfStaleMounts(const std::string& path) {
  constexpr int kMost = 16;
  for (int round = 0; round < kMost; ++round) {
    const auto mount = mountAt(path);
    if (!mount) return;
    if (mount->type != kMountType) {
      throw refusal(EBUSY, path + " is the mount point of another file system (" + mount->type +
                               "); choose another folder, or unmount it first");
    }
    const auto answer = answerOf(path);
    if (!answer) {
      throw refusal(EBUSY, path +
                               " is mounted, and its program does not answer; end that program, "
                               "then run: fusermount3 -u '" +
                               path + "'");
    }
    if (*answer != ENOTCONN && *answer != ECONNABORTED) {
      throw refusal(EBUSY,
                    path + " is mounted already; unmount it first: fusermount3 -u '" + path + "'");
    }
    unmountStale(path);
  }
  throw refusal(EBUSY, path + " is a mount whose program has died, and cannot be freed");
}

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

bool isEmpty(const UniqueFd& folder, const std::string& path) {
  UniqueFd copy(::openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, CloseDirectory> directory(copy ? ::fdopendir(copy.get()) : nullptr);
  if (!directory) throw failure(errno, path);
  copy.release();
  while (const auto* entry = ::readdir(directory.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") return false;
  }
  return true;
}

bool isWithin(std::string_view path, std::string_view folder) {
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

}  // namespace

MountPoint::MountPoint(const std::string& path, uid_t owner, const std::string& stateDirectory)
    : path_(resolved(path)) {
  freeOfStaleMounts(path_);
  if (!stateDirectory.empty() && isWithin(path_, resolved(stateDirectory))) {
    throw refusal(EINVAL, path_ + " lies in " + stateDirectory +
                              ", where the mount keeps its files; choose another folder");
  }
  folder_.reset(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder_ && errno == ENOTDIR) {
    throw refusal(ENOTDIR, path_ + " is not a folder; choose an empty folder");
  }
  struct stat status = {};
  if (!folder_ || ::fstat(folder_.get(), &status) != 0) throw failure(errno, path_);
  if (status.st_uid != owner) {
    throw refusal(EPERM, path_ + " belongs to another user; choose an empty folder of your own");
  }
  if (!isEmpty(folder_, path_)) {
    throw refusal(ENOTEMPTY,
                  path_ + " is not empty; its files would be hidden. Choose an empty folder");
  }
}

void MountPoint::open() {
  if (::fchmod(folder_.get(), S_IRWXU) != 0) throw failure(errno, path_);
}

void MountPoint::seal() {
  ::fchmod(folder_.get(), S_IRUSR | S_IXUSR);
}

}  // namespace kestrowan::mount
