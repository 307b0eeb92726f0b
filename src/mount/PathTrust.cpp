#include "mount/PathTrust.h"

#include <unistd.h>

#include <system_error>

#include "platform/foundation/Logger.h"

namespace kestrowan {

namespace {

std::string foreign(const std::string& path) {
  return escapedForDisplay(path) +
         ": belongs to another user, whose it is to exchange, so it is not used; check who owns it";
}

std::string writable(const std::string& path) {
  const auto shown = escapedForDisplay(path);
  return shown +
         ": others may write here and exchange what lies in it, so it is not used; run chmod go-w "
         "'" +
         shown + "'";
}

}  // namespace

bool othersMayWrite(const struct stat& status) {
  return (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

PathWalk::Judge trustedBy(uid_t user) {
  return [user](const PathWalk::Part& part) -> std::optional<std::string> {
    const auto& status = part.status;
    if (status.st_uid != 0 && status.st_uid != user) return foreign(part.path);
    const bool keepsNames = (status.st_mode & S_ISVTX) != 0;
    if (S_ISDIR(status.st_mode) && othersMayWrite(status) && !keepsNames) {
      return writable(part.path);
    }
    return std::nullopt;
  };
}

std::optional<std::string> ownFolderFault(const std::string& path, const struct stat& status,
                                          uid_t user) {
  if (!S_ISDIR(status.st_mode)) return escapedForDisplay(path) + ": is no directory";
  if (status.st_uid != user) return foreign(path);
  if (othersMayWrite(status)) return writable(path);
  return std::nullopt;
}

std::optional<std::string> folderFault(const std::string& path) {
  if (!path.starts_with('/')) return escapedForDisplay(path) + ": is no absolute path";
  const auto user = ::geteuid();
  const PathWalk walk(path, trustedBy(user));
  if (walk.refusal()) return walk.refusal();
  if (walk.error() != 0) {
    return escapedForDisplay(walk.path()) + ": " + std::generic_category().message(walk.error());
  }
  return ownFolderFault(walk.path(), walk.status(), user);
}

}  // namespace kestrowan
