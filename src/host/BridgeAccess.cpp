#include "host/BridgeAccess.h"

#include <sys/stat.h>
#include <unistd.h>

#include "bridge/FPBridge.h"
#include "platform/foundation/Logger.h"

namespace kestrowan::host {

std::optional<std::string> containerPath(NSFileManager& files) {
  const auto container = files.containerURL(FPBridge::kGroupIdentifier);
  if (!container) return std::nullopt;
  return container->path();
}

bool isSafeContainer(const std::string& container) {
  struct stat status;
  return ::stat(container.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
         status.st_uid == ::geteuid() && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::optional<std::string> bridgeWarning(const std::optional<std::string>& container) {
  if (!container) return std::nullopt;
  if (!isSafeContainer(*container)) {
    return escapedForDisplay(*container) +
           ": belongs to somebody else, or others may write there and could replace the bridge "
           "file, so it is not used; run chmod go-w, and check who owns it";
  }
  const std::string file = *container + "/" + std::string(FPBridge::kConfigFileName);
  struct stat status;
  if (::lstat(file.c_str(), &status) != 0) return std::nullopt;
  if (S_ISLNK(status.st_mode) || status.st_uid != ::geteuid()) {
    return escapedForDisplay(file) +
           ": is a symbolic link or belongs to somebody else, so it is not used";
  }
  if ((status.st_mode & (S_IRGRP | S_IROTH)) != 0) {
    return escapedForDisplay(file) + ": others may read the password in it; run chmod 600";
  }
  return std::nullopt;
}

}  // namespace kestrowan::host
