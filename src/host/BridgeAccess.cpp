#include "host/BridgeAccess.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "bridge/FPBridge.h"
#include "mount/PathTrust.h"
#include "mount/PathWalk.h"
#include "platform/foundation/Logger.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::host {

namespace {

std::string bridgeFile(const std::string& container) {
  return container + "/" + std::string(FPBridge::kConfigFileName);
}

/// Why the file of these attributes, at `path`, is not read.
std::optional<std::string> fileFault(const std::string& path, const struct stat& status) {
  const auto shown = escapedForDisplay(path);
  if (S_ISLNK(status.st_mode)) {
    return shown + ": is a symbolic link, so it is not used; the file itself must lie there";
  }
  if (status.st_uid != ::geteuid()) {
    return shown + ": belongs to another user, so it is not used; check who owns it";
  }
  if (othersMayWrite(status)) {
    return shown +
           ": others may write to it and choose the server, so it is not used; run chmod "
           "go-w '" +
           shown + "' and restart the host application, which writes it anew";
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> containerPath(NSFileManager& files) {
  const auto container = files.containerURL(FPBridge::kGroupIdentifier);
  if (!container) return std::nullopt;
  return container->path();
}

std::optional<std::string> bridgeRefusal(const std::string& container) {
  if (auto refusal = folderFault(container)) return refusal;
  const auto file = bridgeFile(container);
  struct stat status;
  if (::lstat(file.c_str(), &status) != 0) return std::nullopt;
  return fileFault(file, status);
}

std::optional<std::string> bridgeWarning(const std::optional<std::string>& container) {
  if (!container) return std::nullopt;
  if (auto refusal = bridgeRefusal(*container)) return refusal;
  const auto file = bridgeFile(*container);
  struct stat status;
  if (::lstat(file.c_str(), &status) == 0 && (status.st_mode & (S_IRGRP | S_IROTH)) != 0) {
    return escapedForDisplay(file) + ": others may read the password in it; run chmod 600";
  }
  return std::nullopt;
}

UniqueFd openBridgeFile(const std::string& path) {
  const auto slash = path.rfind('/');
  const auto user = ::geteuid();
  const PathWalk folder(path.substr(0, slash + 1), trustedBy(user));
  if (folder.error() != 0) throw cocoaReadError(folder.error(), path);
  if (folder.refusal() || ownFolderFault(path, folder.status(), user)) {
    throw cocoaReadError(EACCES, path);
  }
  // Without waiting, so that a FIFO in the file's place cannot hang the process.
  UniqueFd file(::openat(folder.end().get(), path.c_str() + slash + 1,
                         O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  struct stat status;
  if (!file || ::fstat(file.get(), &status) != 0) throw cocoaReadError(errno, path);
  if (fileFault(path, status)) throw cocoaReadError(EACCES, path);
  return file;
}

}  // namespace kestrowan::host
