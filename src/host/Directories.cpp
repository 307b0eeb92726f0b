#include "host/Directories.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "mount/DescribedError.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::host {

namespace {

constexpr mode_t kPrivate = S_IRWXU;
constexpr mode_t kWritableByOthers = S_IWGRP | S_IWOTH;
constexpr std::size_t kLongestDomainName = 64;  // bytes

std::string environmentValue(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

bool isOwnAndPrivate(const struct stat& status) {
  return status.st_uid == ::geteuid() && (status.st_mode & kWritableByOthers) == 0;
}

void makeWithParents(const std::string& path) {
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const auto part = path.substr(0, end);
    // What cannot be made because it is there answers EEXIST, or EROFS and the like above a place
    // that can be written.
    if (::mkdir(part.c_str(), kPrivate) != 0 && errno != EEXIST) {
      const int error = errno;
      struct stat status;
      if (::stat(part.c_str(), &status) != 0) throw systemError(error, escapedForDisplay(part));
    }
    if (end == std::string::npos) return;
  }
}

}  // namespace

std::string stateHome() {
  // The base directory rules of the desktop say that a relative one is to be ignored.
  if (const auto own = environmentValue("XDG_STATE_HOME"); own.starts_with('/')) {
    return own + "/kestrowan";
  }
  const auto home = environmentValue("HOME");
  if (!home.starts_with('/')) {
    throw describedError(ENOENT, "neither $XDG_STATE_HOME nor $HOME names a directory");
  }
  return home + "/.local/state/kestrowan";
}

std::optional<std::string> runtimeHome() {
  const auto path = environmentValue("XDG_RUNTIME_DIR");
  struct stat status;
  if (!path.starts_with('/') || ::stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) ||
      !isOwnAndPrivate(status)) {
    return std::nullopt;
  }
  return path;
}

bool isDomainName(std::string_view name) {
  const auto fits = [](char character) {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           (character >= '0' && character <= '9') || character == '-' || character == '_' ||
           character == '.';
  };
  return !name.empty() && name.size() <= kLongestDomainName && name.front() != '.' &&
         std::all_of(name.begin(), name.end(), fits);
}

std::string standardStateDirectory(std::string_view domain) {
  if (!isDomainName(domain)) {
    throw describedError(EINVAL, "\"" + escapedForDisplay(domain) + "\" cannot be a domain's name");
  }
  return stateHome() + "/" + std::string(domain);
}

UniqueFd openPrivateDirectory(const std::string& path) {
  const auto shown = escapedForDisplay(path);
  if (!path.starts_with('/')) throw describedError(EINVAL, shown + ": not an absolute path");
  makeWithParents(path);
  UniqueFd directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status;
  if (!directory || ::fstat(directory.get(), &status) != 0) throw systemError(errno, shown);
  if (!isOwnAndPrivate(status)) {
    throw describedError(EACCES, shown + ": belongs to somebody else, or others may write in it");
  }
  return directory;
}

std::string shortName(std::string_view path) {
  // FNV-1a.
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const unsigned char byte : path) hash = (hash ^ byte) * 0x100000001b3;
  std::array<char, 17> text;
  std::snprintf(text.data(), text.size(), "%016llx", static_cast<unsigned long long>(hash));
  return text.data();
}

}  // namespace kestrowan::host
