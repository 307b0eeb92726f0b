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

#include "host/HostLog.h"
#include "mount/DescribedError.h"
#include "mount/PathTrust.h"
#include "mount/PathWalk.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::host {

namespace {

constexpr mode_t kPrivate = S_IRWXU;
constexpr mode_t kForOthers = S_IRWXG | S_IRWXO;
constexpr mode_t kModeBits = 07777;
constexpr std::size_t kLongestDomainName = 64;  // bytes

std::string environmentValue(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
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
  if (!path.starts_with('/') || folderFault(path)) return std::nullopt;
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
  const auto user = ::geteuid();
  const PathWalk walk(path, trustedBy(user), PathWalk::LastLink::kept, PathWalk::Missing::made);
  if (walk.refusal()) throw describedError(EACCES, *walk.refusal());
  if (walk.error() != 0) throw systemError(walk.error(), escapedForDisplay(walk.path()));
  if (S_ISLNK(walk.status().st_mode)) {
    throw describedError(EACCES, shown + ": is a symbolic link; name the directory itself");
  }
  if (const auto fault = ownFolderFault(path, walk.status(), user)) {
    throw describedError(EACCES, *fault);
  }
  UniqueFd directory(
      ::openat(walk.end().get(), ".", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory) throw systemError(errno, shown);
  return directory;
}

void closeToOthers(const UniqueFd& directory, const std::string& path) {
  const auto shown = escapedForDisplay(path);
  struct stat status;
  if (::fstat(directory.get(), &status) != 0) throw systemError(errno, shown);
  if ((status.st_mode & kModeBits) == kPrivate) return;
  if (::fchmod(directory.get(), kPrivate) != 0) throw systemError(errno, shown);
  if ((status.st_mode & kForOthers) != 0) {
    hostLog(path + ": others could look into it; its mode is 0700 now");
  }
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
