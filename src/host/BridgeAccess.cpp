#include "host/BridgeAccess.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "bridge/FPBridge.h"
#include "platform/foundation/Logger.h"
#include "platform/foundation/NSError.h"

namespace kestrowan::host {

namespace {

bool isOwn(const struct stat& status) {
  return status.st_uid == ::geteuid();
}

std::string bridgeFile(const std::string& container) {
  return container + "/" + std::string(FPBridge::kConfigFileName);
}

}  // namespace

std::optional<std::string> containerPath(NSFileManager& files) {
  const auto container = files.containerURL(FPBridge::kGroupIdentifier);
  if (!container) return std::nullopt;
  return container->path();
}

std::optional<std::string> containerRefusal(const std::string& container) {
  const auto shown = escapedForDisplay(container) + ": ";
  struct stat status;
  if (::stat(container.c_str(), &status) != 0) {
    return shown + std::generic_category().message(errno);
  }
  if (!S_ISDIR(status.st_mode)) return shown + "is no directory";
  if (!isOwn(status)) {
    return shown +
           "belongs to another user, who could replace the bridge file, so it is not used; check "
           "who owns it";
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return shown +
           "others may write here and could replace the bridge file, so it is not used; run chmod "
           "go-w";
  }
  return std::nullopt;
}

std::optional<std::string> bridgeRefusal(const std::string& container) {
  if (auto refusal = containerRefusal(container)) return refusal;
  const auto file = bridgeFile(container);
  struct stat status;
  if (::lstat(file.c_str(), &status) != 0) return std::nullopt;
  if (S_ISLNK(status.st_mode)) {
    return escapedForDisplay(file) +
           ": is a symbolic link, so it is not used; the file itself must lie there";
  }
  if (!isOwn(status)) {
    return escapedForDisplay(file) +
           ": belongs to another user, so it is not used; check who owns it";
  }
  return std::nullopt;
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
  // Without waiting, so that a FIFO in the file's place cannot hang the process.
  UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  struct stat status;
  if (!file || ::fstat(file.get(), &status) != 0) throw cocoaReadError(errno, path);
  if (!isOwn(status)) throw cocoaReadError(EACCES, path);
  return file;
}

}  // namespace kestrowan::host
