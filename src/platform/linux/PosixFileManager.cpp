#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "platform/base/UniqueFd.h"
#include "platform/foundation/FileContents.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/linux/ContainerPath.h"
#include "platform/linux/PosixFileMove.h"

namespace kestrowan {

namespace {

constexpr mode_t kPrivate = S_IRUSR | S_IWUSR;
constexpr std::size_t kUsualNameLength = 255;

/// The value of an environment variable; empty when unset.
std::string environmentValue(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

std::string absolutePath(const std::string& path) {
  std::error_code error;
  const auto absolute = std::filesystem::absolute(path, error);
  return error ? path : absolute.string();
}

/// Whether the system would take a part of `path` for the whole.
bool holdsNUL(const NSURL& url) {
  return url.path().find('\0') != std::string::npos;
}

bool writeAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const auto written = ::write(file, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

class PosixFileManager : public NSFileManager {
 public:
  std::optional<NSURL> containerURL(std::string_view group) override {
    const auto path = containerPath(group);
    struct stat status;
    if (path.empty() || ::stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
      return std::nullopt;
    }
    return NSURL::fileURLWithPath(path);
  }

  NSURL temporaryDirectory() override {
    const auto path = environmentValue("TMPDIR");
    return NSURL::fileURLWithPath(path.empty() ? "/tmp" : absolutePath(path));
  }

  NSData contents(const NSURL& at) override {
    if (holdsNUL(at)) throw cocoaReadError(ENOENT, at.path());
    // Without waiting, so that a FIFO in the file's place cannot hang the process.
    const UniqueFd file(::open(at.path().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file) throw cocoaReadError(errno, at.path());
    return fileContents(file, at.path());
  }

  bool createFile(const NSURL& at, std::string_view contents) override {
    if (holdsNUL(at)) return false;
    const auto& path = at.path();
    const UniqueFd file(::open(path.c_str(),
                               O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY,
                               kPrivate));
    struct stat status;
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    if (::fchmod(file.get(), kPrivate) == 0 && ::ftruncate(file.get(), 0) == 0 &&
        writeAll(file.get(), contents)) {
      return true;
    }
    ::unlink(path.c_str());
    return false;
  }

  void moveItem(const NSURL& at, const NSURL& to) override {
    if (holdsNUL(at) || holdsNUL(to)) throw cocoaWriteError(EINVAL, to.path());
    if (const int error = moveFileExclusively(at.path(), to.path())) {
      throw cocoaWriteError(error, error == EEXIST ? to.path() : at.path());
    }
  }

  void removeItem(const NSURL& at) override {
    if (holdsNUL(at)) throw cocoaWriteError(EINVAL, at.path());
    std::error_code error;
    const auto removed = std::filesystem::remove_all(at.path(), error);
    if (error) throw cocoaWriteError(error.value(), at.path());
    if (removed == 0) throw cocoaWriteError(ENOENT, at.path());
  }

  std::optional<std::int64_t> fileSize(const NSURL& of) override {
    struct stat status;
    if (holdsNUL(of) || ::stat(of.path().c_str(), &status) != 0) return std::nullopt;
    return status.st_size;
  }

  std::size_t maximumNameLength(const NSURL& directory) override {
    const auto length = ::pathconf(directory.path().c_str(), _PC_NAME_MAX);
    return length > 0 ? static_cast<std::size_t>(length) : kUsualNameLength;
  }
};

struct DefaultManager {
  std::mutex mutex;
  std::shared_ptr<NSFileManager> manager;
};

DefaultManager& sharedDefault() {
  // Never destroyed: a background task may outlive the program's static objects.
  static auto* shared = new DefaultManager;
  return *shared;
}

}  // namespace

std::shared_ptr<NSFileManager> NSFileManager::defaultManager() {
  auto& shared = sharedDefault();
  std::lock_guard lock(shared.mutex);
  if (!shared.manager) shared.manager = std::make_shared<PosixFileManager>();
  return shared.manager;
}

void NSFileManager::setDefaultManager(std::shared_ptr<NSFileManager> manager) {
  auto& shared = sharedDefault();
  std::lock_guard lock(shared.mutex);
  shared.manager.swap(manager);
}

}  // namespace kestrowan
