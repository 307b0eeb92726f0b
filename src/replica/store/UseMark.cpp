#include "replica/store/UseMark.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "platform/base/UniqueFd.h"
#include "replica/store/StoreFiles.h"

namespace kestrowan::replica {

namespace {

/// The kernel's name for the time since it was started.
constexpr const char* kRunPath = "/proc/sys/kernel/random/boot_id";

std::string textOf(int file) {
  std::array<char, 64> bytes;
  const ssize_t count = ::read(file, bytes.data(), bytes.size());
  return {bytes.data(), count > 0 ? static_cast<std::size_t>(count) : 0};
}

/// Empty when the system does not tell.
std::string presentRun() {
  const UniqueFd file(::open(kRunPath, O_RDONLY | O_CLOEXEC));
  return file ? textOf(file.get()) : std::string();
}

}  // namespace

UseMark::UseMark(const std::string& directory)
    : directory_(directory), path_(directory + "/in-use"), run_(presentRun()) {
  struct stat status;
  if (::lstat(path_.c_str(), &status) != 0) {
    if (errno != ENOENT) throw fileError(errno, path_);
    return;
  }
  const std::string noted = textOf(openRegularFile(path_, O_RDONLY).get());
  isSet_ = !noted.empty() && noted == run_;
  const bool isCleared = !noted.empty() && noted.find_first_not_of(' ') == std::string::npos;
  machineStopped_ = !isSet_ && !isCleared;
}

void UseMark::set() const {
  if (isSet_) return;
  write(run_);
  syncDirectory(directory_);
}

void UseMark::clear() const {
  write(std::string(std::max<std::size_t>(run_.size(), 1), ' '));
}

/// In place: a mark that is there already needs no room on the disk.
void UseMark::write(const std::string& text) const {
  const UniqueFd file(
      ::open(path_.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
  const auto size = static_cast<ssize_t>(text.size());
  if (!file || ::write(file.get(), text.data(), text.size()) != size ||
      ::ftruncate(file.get(), size) != 0 || ::fdatasync(file.get()) != 0) {
    throw fileError(errno, path_);
  }
}

}  // namespace kestrowan::replica
