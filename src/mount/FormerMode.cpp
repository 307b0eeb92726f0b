#include "mount/FormerMode.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <ios>
#include <sstream>

#include "mount/DescribedError.h"
#include "mount/LocalFiles.h"
#include "platform/base/UniqueFd.h"

namespace kestrowan::mount {

namespace {

constexpr mode_t kModeBits = 07777;
constexpr std::size_t kLongest = PATH_MAX + 100;  // bytes

std::string fileIn(const std::string& stateDirectory) {
  return stateDirectory + "/mount-point";
}

}  // namespace

std::optional<FormerMode> FormerMode::read(const std::string& stateDirectory) {
  const UniqueFd file(
      ::open(fileIn(stateDirectory).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
  if (!file) return std::nullopt;
  std::istringstream text(readAll(file.get(), kLongest));
  FormerMode former;
  if (!(text >> former.device >> former.inode >> std::oct >> former.mode) || text.get() != '\n' ||
      !std::getline(text, former.path, '\0') || !former.path.starts_with('/')) {
    return std::nullopt;
  }
  former.mode &= kModeBits;
  return former;
}

void FormerMode::write(const std::string& stateDirectory) const {
  const auto name = fileIn(stateDirectory);
  const auto temporary = name + ".new";
  std::ostringstream text;
  // The path, which may hold anything else, comes last.
  text << device << ' ' << inode << ' ' << std::oct << mode << '\n' << path;
  const auto contents = text.str();
  errno = 0;
  const UniqueFd file(::open(temporary.c_str(),
                             O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, kPrivateFile));
  if (!file ||
      ::write(file.get(), contents.data(), contents.size()) !=
          static_cast<ssize_t>(contents.size()) ||
      ::fsync(file.get()) != 0 || std::rename(temporary.c_str(), name.c_str()) != 0) {
    // A write that is cut short says nothing itself.
    const int error = errno != 0 ? errno : ENOSPC;
    ::unlink(temporary.c_str());
    throw systemError(error, name);
  }
}

void FormerMode::forget(const std::string& stateDirectory) {
  ::unlink(fileIn(stateDirectory).c_str());
}

void FormerMode::restore(int folder) const {
  struct stat status = {};
  if (::fstat(folder, &status) != 0 || status.st_dev != device || status.st_ino != inode ||
      (status.st_mode & kModeBits) != kSealed) {
    return;
  }
  ::fchmod(folder, mode);
}

}  // namespace kestrowan::mount
