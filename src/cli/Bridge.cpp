#include "cli/Bridge.h"

#include <memory>

#include "bridge/FPBridge.h"
#include "host/BridgeAccess.h"
#include "host/GuardedFileManager.h"
#include "host/Process.h"
#include "platform/foundation/Logger.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSFileManager.h"

namespace kestrowan::cli {

namespace {

/// The platform's own file manager, which guards nothing.
const std::shared_ptr<NSFileManager>& systemFiles() {
  // Never destroyed: a background task may outlive the program's static objects.
  static const auto* files = new std::shared_ptr(NSFileManager::defaultManager());
  return *files;
}

std::string unreadable(const std::string& container, const NSError& error) {
  const auto file = escapedForDisplay(container + "/" + std::string(FPBridge::kConfigFileName));
  if (error.is(NSCocoaErrorDomain, NSCoderReadCorruptError) ||
      error.is(NSCocoaErrorDomain, NSCoderValueNotFoundError)) {
    return file +
           " is not a JSON object with \"port\" (a whole number), \"user\", \"pass\" and "
           "\"certPEM\" (texts)\n  restart the host application, so that it writes the file anew";
  }
  return file + ": " + error.localizedDescription() +
         "\n  check that the host application is running and may write there";
}

}  // namespace

void useBridge() {
  host::protectMemory();
  NSFileManager::setDefaultManager(std::make_shared<host::GuardedFileManager>(systemFiles()));
}

std::optional<std::string> bridgeContainer() {
  return host::containerPath(*systemFiles());
}

std::optional<std::string> bridgeProblem() {
  const std::string what = "not configured: ";
  const auto container = bridgeContainer();
  if (!container) {
    return what +
           "there is no container directory\n"
           "  looked for $KESTROWAN_CONTAINER, else the directory " +
           std::string(FPBridge::kGroupIdentifier) +
           " in $XDG_DATA_HOME or ~/.local/share\n"
           "  start the host application, or name the directory with --container";
  }
  if (const auto refusal = host::bridgeRefusal(*container)) return what + *refusal;
  try {
    FPBridge::loadConfig();
    return std::nullopt;
  } catch (const NSError& error) {
    return what + unreadable(*container, error);
  }
}

}  // namespace kestrowan::cli
