#include "host/StateDirectory.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include "host/CommandAdvice.h"
#include "host/Directories.h"
#include "host/Registry.h"
#include "host/StorageNote.h"
#include "mount/DescribedError.h"
#include "mount/LocalFiles.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::host {

namespace {

constexpr const char* kLockName = "lock";

/// The process that wrote its number into the lock file; empty when none can be read.
std::string holder(int file) {
  std::array<char, 24> text;
  const auto length = ::pread(file, text.data(), text.size(), 0);
  std::string number(text.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
  number.resize(number.find_last_of("0123456789") + 1);
  return number.find_first_not_of("0123456789") == std::string::npos ? number : "";
}

/// What is mounted from the state at `path`, and how that is ended.
std::string mountOf(const std::string& path) {
  for (const auto& host : knownHosts()) {
    if (!host.running || host.stateDirectory != path) continue;
    return ", which serves " + escapedForDisplay(host.mountPoint) +
           "; end that with: " + unmountCommand(host);
  }
  return "; end that first";
}

/// A host that was killed holds its lock until the system has taken it apart.
bool tryLock(int file) {
  constexpr std::chrono::milliseconds kPatience{2000};
  constexpr std::chrono::milliseconds kPause{20};
  for (auto waited = std::chrono::milliseconds(0);; waited += kPause) {
    if (::flock(file, LOCK_EX | LOCK_NB) == 0) return true;
    if (errno != EWOULDBLOCK || waited >= kPatience) return false;
    std::this_thread::sleep_for(kPause);
  }
}

}  // namespace

StateDirectory::StateDirectory(std::string path)
    : path_(std::move(path)),
      isMade_(::access(path_.c_str(), F_OK) != 0 && errno == ENOENT),
      directory_(openPrivateDirectory(path_)) {
  tighten();
  lock();
}

StateDirectory::~StateDirectory() {
  if (isMade_) remove();
}

/// Nothing but what an empty replica and its host consist of is removed.
void StateDirectory::remove() const {
  for (const char* folder : {"contents", "temporary"}) {
    if (::unlinkat(directory_.get(), folder, AT_REMOVEDIR) != 0 && errno != ENOENT) return;
  }
  for (const char* file :
       {"replica.db", "replica.db-wal", "replica.db-shm", "in-use", "reserve", kLockName}) {
    ::unlinkat(directory_.get(), file, 0);
  }
  removeStorageNote(directory_.get());
  ::rmdir(path_.c_str());
}

void StateDirectory::tighten() const {
  struct stat lockFile;
  if (::fstatat(directory_.get(), kLockName, &lockFile, AT_SYMLINK_NOFOLLOW) != 0 &&
      !isEmptyFolder(directory_.get())) {
    throw describedError(ENOTEMPTY, escapedForDisplay(path_) +
                                        ": holds something else than a host's state; name an empty "
                                        "directory, or one that is not there yet");
  }
  closeToOthers(directory_, path_);
}

void StateDirectory::lock() {
  const auto shown = escapedForDisplay(path_ + "/" + kLockName);
  UniqueFd file(::openat(directory_.get(), kLockName,
                         O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY,
                         kPrivateFile));
  struct stat status;
  if (!file || ::fstat(file.get(), &status) != 0) throw systemError(errno, shown);
  if (!S_ISREG(status.st_mode) || status.st_uid != ::geteuid()) {
    throw describedError(EACCES, shown + ": is no regular file of this user");
  }
  if (!tryLock(file.get())) {
    if (errno != EWOULDBLOCK) throw systemError(errno, shown);
    const auto number = holder(file.get());
    throw describedError(EBUSY, escapedForDisplay(path_) + ": in use by another host" +
                                    (number.empty() ? "" : ", process " + number) + mountOf(path_) +
                                    ", or name another --domain for a second mount");
  }
  // In place: a number that is there already needs no room on the disk.
  const auto number = std::to_string(::getpid()) + "\n";
  const auto size = static_cast<ssize_t>(number.size());
  errno = 0;
  if (::pwrite(file.get(), number.data(), number.size(), 0) != size ||
      ::ftruncate(file.get(), size) != 0) {
    throw systemError(errno != 0 ? errno : ENOSPC, shown);
  }
  lock_ = std::move(file);
}

bool StateDirectory::isRemote() const {
  struct statfs status;
  return ::fstatfs(directory_.get(), &status) == 0 &&
         isRemoteFileSystem(static_cast<unsigned long>(status.f_type));
}

bool isRemoteFileSystem(unsigned long type) {
  constexpr std::array<unsigned long, 6> kRemote = {NFS_SUPER_MAGIC,  SMB_SUPER_MAGIC,
                                                    CIFS_SUPER_MAGIC, SMB2_SUPER_MAGIC,
                                                    AFS_SUPER_MAGIC,  FUSE_SUPER_MAGIC};
  return std::find(kRemote.begin(), kRemote.end(), type) != kRemote.end();
}

}  // namespace kestrowan::host
